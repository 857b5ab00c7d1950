"""The page of what was found: a section for each part, and a summary before them."""

from __future__ import annotations

import textwrap
from collections.abc import Mapping
from typing import Any

from .cases import CASES, DENSITY, Case, Design
from .finer import SOFT

Found = dict[str, Any]

_WIDTH = 110
# Reasons of what is not as one would expect, by case.
REMARKS = {
    "mbb-beam": "The loop's thinnest struts carry little and come and go with the last digits of "
    "a run, and with it some percent of the stiffness: another run of the same settings was 2 % "
    "softer than the density method's part.",
    "cantilever": "Both methods find the same part.",
    "cantilever-3d": "The density method's steps, each with a factor, were 100 at most.",
    "mbb-beam-3d": "The part is a shell of one or two elements: on the loop's mesh both "
    "methods' parts are stiffer than as bodies, the density method's by more.",
    "l-bracket": "As a body the part holds the limit everywhere but in the corner, whose stress "
    "has no bound: 59 there, where nothing can be added outside of the design volume, and the "
    "finer the mesh the more. The stiffest part has 74 and the density method's 81. Before "
    "material is added, bodies of such parts had 59 to 252, of this one 1179, since thin struts "
    "that the loop's mesh joins by a node may be torn off. Volumes of the same settings end "
    "between 0.34 and 0.40 before, and 0.39 to 0.44 after.",
    "bridge": "Where no strut breaks the wish costs the loop 35 % in black and white, the "
    "density method 28 %. The loop's struts below the deck are one point wide. On its own mesh "
    "they are stiffer than they are, and come and go with the last digits of a run: of fourteen "
    "runs eleven ended as bodies of 13.8 to 15.8, and three, this one among them, of 49 to 53, "
    "with a strut that had come apart between two points; `vkctl verify-part` tells that. What "
    "only holds while it is printed is left as chains of beads. Without the wish the loop is "
    "softer: material is kept to the nodes 1 below the deck, so its surface lies up to an "
    "element further down, and fewer struts are left than the density method has. What hangs "
    "over in the loop's printed part lies between nodes, each of which has material in its cone.",
    "bracket": "What the wishes cost is what the comparison shows: without them the loop's "
    "part is as stiff as the density method's, within 3 %. What can't be drawn lies between "
    "nodes. The bodies are softer by a quarter than any of the parts on the loop's mesh, "
    "whose 4-node tetrahedra of 5 mm are too stiff.",
    "printed-bracket": "On 4-node tetrahedra, as the other case, where the tutorial takes "
    "10-node ones: the loop's own stresses are too low by more than three times there, and "
    "bodies of its part had 155 to 198. What is added for the body makes up for it. The density "
    "method's part is for stiffness alone, the better one in that, with three times the limit as "
    "a body, and has no struts to hold what is printed.",
}

TITLE = "Benchmarks of the optimiser"

INTRODUCTION = f"""
Parts that `vkctl optimise` makes, judged by other means than the loop that made them, and beside
a density method on the same mesh with the same volume, supports and loads. `python
verification/benchmarks.py` computes all of it and writes this page with its pictures, case by
case: stopped, it goes on where it was.

- **Loop's mesh**: as `vk_rund` solves the level field, whose surface cuts through elements.
- **Body, 4 nodes / 10 nodes**: the part's smooth surface meshed as a body with Gmsh, its own
  triangles on the surface, supports and loads put on it anew, as [`vkctl
  verify-part`](optimisation.md#the-part-as-a-body) does. The 10-node tetrahedra are the finest
  that is looked at; 4-node ones are too stiff.
- **Black and white**: each element of the loop's mesh is cut in smaller ones, those of the
  largest level, or density, are full, of the same volume for both, and the others have {SOFT:g}
  of the stiffness. Level and density are interpolated between nodes, the density also taken
  element by element: its stiffer one counts.
- **Density method**: modified SIMP with the power 3, sensitivity filter of the loop's radius and
  optimality criteria ([the same](optimisation.md#compared-with-a-density-method)), in arithmetic
  of its own, all load cases at once. It knows no wishes and no limits. So that its part can be
  judged like the loop's, its densities become a level field at the one value whose surface holds
  as much as the surface of the loop's part: bodies have the same volume, the solver's count
  differs a little.
- **Density method with an overhang**: an element is at most as dense as the densest of those
  below it and beside that, layer after layer from the plate up, and what is to keep is there
  whatever holds it, as in the loop (M. Langelaar, Addit. Manuf. 12 (2016) 60-70; Struct. Multidisc.
  Optim. 55 (2017) 871-883). Its densities are means of the same radius, driven to black and
  white before and after they are printed (F. Wang, B. S. Lazarov, O. Sigmund, ibid. 43 (2011)
  767-784): grey holds well and costs little. A node has the density of the densest element around
  it, since means lose struts of one element, and what that adds is left out before, 2 % of the
  volume. From three starts, one of them all material as the loop's, the stiffest counts.
- Compliance is the work of the loads; less is stiffer. **Cut** is the share of the elements that
  the surface goes through, **member** and **hole** are the [measured
  sizes](optimisation.md#what-the-shape-shall-have) in edges of a cell or mm. Times are of the
  machine that made the page, other work beside it.
"""


def page(found: Mapping[str, Found], made: Mapping[str, str]) -> str:
    """Of the cases that were found, by name, and what each was made from."""
    cases = [case for case in CASES if case.name in found]
    origins = sorted(set(made[case.name] for case in cases))
    if len(origins) == 1:
        from_what = f"Made from {origins[0]}."
    else:
        told = [f"- {case.title}: {made[case.name]}" for case in cases]
        from_what = "Made from:\n\n" + "\n".join(told)
    parts = [f"# {TITLE}", from_what, INTRODUCTION.strip(), "## In short", *_summary(cases, found)]
    for case in cases:
        parts += _section(case, found[case.name])
    return "\n\n".join(map(_wrapped, parts)) + "\n"


def _wrapped(part: str) -> str:
    """A paragraph in lines; tables, pictures, lists and headings as they are."""
    if part.startswith(("|", "!", "#", "- ")) or "\n" in part:
        return part
    return textwrap.fill(part, _WIDTH, break_long_words=False, break_on_hyphens=False)


# --- summary ------------------------------------------------------------------------------------


def _summary(cases: list[Case], found: Mapping[str, Found]) -> list[str]:
    """How much softer the loop's parts are than the density method's."""
    pairs = [(case, one, found[case.name]) for case in cases for one in case.designs]
    alike = [pair for pair in pairs if pair[1].like is not None]
    alone = [pair for pair in pairs if pair[1].like is None]
    worse = [_name(case, one) for case, one, of in alike if max(_known(one, of), default=0) > 1]
    told = (
        "Compliance of the loop's part against the density method's of the same volume, and of its "
        "body against what its own loop says. Minus is stiffer."
    )
    parts = [
        told,
        "Like with like: the density method's part has the same wishes.",
        _compared(alike),
        f"Softer than the density method's by either: {', '.join(worse) or 'none'}.",
    ]
    if alone:
        parts += ["With wishes or limits that are the loop's alone:", _compared(alone)]
    return parts


def _compared(pairs: list[tuple[Case, Design, Found]]) -> str:
    head = ["part", "black and white", "body, 10 nodes", "its body against its loop's mesh"]
    rows = []
    for case, one, of in pairs:
        loop = _of_name(of, one.name)
        ratios = [*_both(one, of), _ratio(loop, loop, "body_2", "loop")]
        rows.append([_name(case, one), *map(_percent, ratios)])
    return _table(head, rows)


def _name(case: Case, one: Design) -> str:
    """Of a design among those of all cases, with a link to its case."""
    said = one.title.partition(",")[2] if len(case.designs) > 1 else ""
    return f"[{case.title}](#{_anchor(case.title)}){':' if said else ''}{said}"


def _of_name(found: Found, name: str) -> Found:
    (one,) = (design for design in found["designs"] if design["name"] == name)
    return dict(one)


def _known(one: Design, of: Found) -> list[float]:
    return [ratio for ratio in _both(one, of) if ratio is not None]


def _both(one: Design, of: Found) -> list[float | None]:
    """The part's compliance over that of the density method, judged in both ways."""
    loop, other = _of_name(of, one.name), _of_name(of, one.like or DENSITY)
    return [_ratio(loop, other, key) for key in ("fine", "body_2")]


def _ratio(one: Found, other: Found, key: str, of: str = "") -> float | None:
    if key not in one or (of or key) not in other:
        return None
    return float(one[key] / other[of or key])


def _percent(ratio: float | None) -> str:
    return "" if ratio is None else f"{100 * (ratio - 1):+.1f} %"


def _anchor(title: str) -> str:
    kept = "".join(letter for letter in title.lower() if letter.isalnum() or letter in " -")
    return "-".join(kept.split())


# --- a part -------------------------------------------------------------------------------------


def _section(case: Case, found: Found) -> list[str]:
    kind = "hexahedra" if found["width"] == 8 else "4-node tetrahedra"
    meshes = (
        f"{found['elements']} {kind}, {found['equations']} equations; in black and white "
        f"{found['finer_elements']} elements, {found['finer_equations']} equations. With all "
        f"material the compliance is {_number(found['full'][0])} on the loop's mesh and "
        f"{_number(found['full'][1])} on the finer one."
    )
    parts = [f"## {case.title}", case.text, meshes]
    head = ["compliance", "volume", "loop's mesh", "body, 4 nodes", "body, 10 nodes"]
    rows = [
        [
            one["title"],
            *_figures(one),
        ]
        for one in found["designs"]
    ]
    parts.append(_table([*head, "black and white"], rows))
    parts.append(_looks(case, found))
    parts += _judgement(case, found)
    for one in found["designs"]:
        caption = f"{case.title}: {one['title']}"
        parts.append(f"![{caption}](benchmarks/{case.name}-{one['name']}.png)")
    return parts


def _figures(one: Found) -> list[str]:
    keys = ("loop", "body_1", "body_2", "fine")
    return [f"{one['volume']:.3f}", *(_number(one.get(key)) for key in keys)]


def _looks(case: Case, found: Found) -> str:
    head = ["part", "steps", "time", "cut", "member", "hole", "bodies", "equations of the body"]
    columns: list[tuple[str, str]] = []
    if case.stress is not None:
        names = ("loop's mesh", "4 nodes", "10 nodes")
        columns += [
            (f"largest stress, {name}", key)
            for name, key in zip(names, ("stress", "stress_1", "stress_2"), strict=True)
        ]
    rows = []
    for one in found["designs"]:
        extra = [_number(one.get(key), 4) for _, key in columns]
        if case.build is not None:
            extra.append(_share(one.get("hanging")))
        if case.drawn is not None:
            extra.append(_share(one.get("undercut")))
        steps = "" if "steps" not in one else str(one["steps"])
        if "steps" in one and not one["converged"]:
            steps += ", the most"
        if one.get("body_steps"):
            steps += f", and {one['body_steps']} for the body"
        rows.append(
            [
                one["title"],
                steps,
                f"{one['seconds']:.0f} s",
                _share(one["cut"]),
                _number(one["member"], 2),
                _number(one["hole"], 2),
                str(one.get("bodies", "")),
                str(one.get("body_equations", "")),
                *extra,
            ]
        )
    head += [name for name, _ in columns]
    head += ["surface that hangs over"] if case.build is not None else []
    head += ["void that can't be drawn"] if case.drawn is not None else []
    return _table(head, rows)


def _judgement(case: Case, found: Found) -> list[str]:
    """What follows from the numbers."""
    parts = []
    for one in case.designs:
        told = []
        ways = ("in black and white", "as a body of 10-node tetrahedra")
        for ratio, what in zip(_both(one, found), ways, strict=True):
            if ratio is not None:
                how = "**softer**" if ratio > 1 else "stiffer"
                told.append(f"{abs(100 * (ratio - 1)):.1f} % {how} {what}")
        other = _of_name(found, one.like or DENSITY)["title"]
        parts.append(f"{_begun(one.title)}: {' and '.join(told)} than the {other}.")
    greys = [_grey(one) for one in found["designs"] if "grey" in one]
    parts = [" ".join(parts), " ".join(greys)]
    for one in found["designs"]:
        if "no_body" in one:
            parts.append(f"No body of {one['title']}: {one['no_body']}")
        if one.get("limits"):
            parts.append("At the end of the loop, " + "; ".join(one["limits"]) + ".")
    if case.known:
        parts.append(case.known.replace("{flat}", _number(found["flat"])))
    if case.name in REMARKS:
        parts.append(REMARKS[case.name])
    return parts


def _begun(words: str) -> str:
    """As a sentence begins."""
    return words[0].upper() + words[1:]


def _grey(one: Found) -> str:
    """What the density method says of its part."""
    grey = _number(one["grey"])
    told = f"{_begun(one['title'])}, by its own figure, with its grey elements: {grey}."
    if "starts" not in one:
        return told
    starts = [f"{_number(ended)} from {begin:g}" for begin, ended in one["starts"]]
    return f"{told} Of starts at different densities: {', '.join(starts)}."


def _number(value: float | None, digits: int = 5) -> str:
    return "" if value is None else f"{value:.{digits}g}"


def _share(value: float | None) -> str:
    return "" if value is None else f"{100 * value:.1f} %"


def _table(head: list[str], rows: list[list[str]]) -> str:
    lines = ["| " + " | ".join(head) + " |", "|" + "---|" * len(head)]
    lines += ["| " + " | ".join(row) + " |" for row in rows]
    return "\n".join(lines)
