"""Writes the tables of the documents from what the program tells of itself.

describe_docs.py [--check] [PROGRAM]: a table stands between `<!-- generated: NAME -->` and
`<!-- end -->`; the text around is written by hand. --check writes nothing and is status 1 where a
table differs. PROGRAM is VK_RUND or the release build unless given.
"""

import argparse
import json
import os
import re
import subprocess
import sys
from collections.abc import Iterable
from pathlib import Path
from typing import Any

ROOT = Path(__file__).resolve().parents[1]
DOCUMENTS = ("docs/file-formats.md", "docs/options.md")
REGION = re.compile(r"(<!-- generated: (.*?) -->\n)(.*?)(<!-- end -->)", re.DOTALL)
MARK = re.compile(r"<!-- (?:generated: .*?|end) -->")

Entry = dict[str, Any]


class DescriptionError(Exception):
    """What keeps the tables from being made, in a sentence."""


def describe(program: Path) -> Entry:
    try:
        done = subprocess.run([program, "--describe"], capture_output=True, check=True)
    except (OSError, subprocess.CalledProcessError) as error:
        raise DescriptionError(f"{program} can't be asked: {error}") from error
    described: Entry = json.loads(done.stdout)
    return described


# --- cells ----------------------------------------------------------------------------------------


def number(value: float, kind: str) -> str:
    return f"{float(value)}" if kind == "float32" else f"{value}"


def shaped(entry: Entry) -> str:
    """The type of a field or item: `3 x 3 float32`."""
    if "record" in entry:
        return f"`{entry['record']}`"
    sizes = " x ".join(map(str, entry.get("shape", ())))
    return f"{sizes} {entry['type']}".strip()


def default(field: Entry) -> str:
    if "default" not in field:
        return ""
    value = field["default"]
    if isinstance(value, str):
        return "blanks" if value.isspace() else value
    if isinstance(value, list):
        return ", ".join(number(v, field["type"]) for v in value)
    return number(value, field["type"])


def meaning(entry: Entry) -> str:
    """What an entry means, with its codes or bits: masks in hexadecimal."""
    codes = [f"`{row['code']}` {row['meaning']}" for row in entry.get("codes", ())]
    bits = [f"`{row['mask']:#x}` {row['meaning']}" for row in entry.get("bits", ())]
    listed = "; ".join(codes + bits)
    return ": ".join(part for part in (entry.get("meaning", ""), listed) if part)


def limits(option: Entry) -> str:
    low, high = (
        number(option[key], option["type"]) if key in option else ""
        for key in ("lowest", "highest")
    )
    if low and high:
        return f"{low} .. {high}"
    return f"from {low}" if low else f"to {high}" if high else ""


def rows(item: Entry) -> str:
    if "count" not in item:
        return "1"
    more = f" + {item['more']}" if "more" in item else ""
    condition = f", if `{item['condition']}` is above 0" if "condition" in item else ""
    return f"`{item['count']}`{more}{condition}"


# --- tables ---------------------------------------------------------------------------------------

BYTES = {"char": 1, "int16": 2, "uint16": 2, "int32": 4, "uint32": 4, "int64": 8, "float32": 4}


def table(head: tuple[str, ...], lines: Iterable[tuple[str, ...]]) -> str:
    """A Markdown table; columns that are empty throughout are left out."""
    body = list(lines)
    kept = [c for c in range(len(head)) if any(line[c] for line in body)]
    text = [[head[c] for c in kept], ["---"] * len(kept)]
    text += [[line[c].replace("|", "\\|") for c in kept] for line in body]
    return "".join("| " + " | ".join(cells) + " |\n" for cells in text)


def option_table(described: Entry) -> str:
    words = {"float32": "float", "int32": "integer"}
    return table(
        ("key", "type", "default", "limits", "what it sets"),
        (
            (
                f"`{o['key']}`",
                words[o["type"]],
                number(o["default"], o["type"]),
                limits(o),
                meaning(o),
            )
            for o in described["options"]["keys"]
        ),
    )


def record_table(record: Entry) -> str:
    return table(
        ("offset", "type", "field", "default", "meaning"),
        (
            (str(f["offset"]), shaped(f), f"`{f['name']}`", default(f), meaning(f))
            for f in record["fields"]
        ),
    )


def file_table(described: Entry, file: Entry) -> str:
    lines = []
    place: int | None = 0  # None behind the first table: its length is known from the file alone
    for item in file["items"]:
        offset = "behind" if place is None else str(place)
        lines.append((offset, shaped(item), f"`{item['name']}`", rows(item), meaning(item)))
        if "count" in item or "record" in item:
            place = None
        elif place is not None:
            place += BYTES[item["type"]]
    return table(("offset", "type", "item", "rows", "meaning"), lines)


def type_table(described: Entry) -> str:
    return table(
        ("code", "element", "nodes", "table"),
        (
            (str(t["code"]), t["meaning"], str(t["nodes"]), f"`{t['table']}`")
            for t in described["elementTypes"]
        ),
    )


def limit_table(described: Entry) -> str:
    return table(
        ("limit", "value", "meaning"),
        ((limit["name"], str(limit["value"]), limit["meaning"]) for limit in described["limits"]),
    )


def tables(described: Entry) -> dict[str, str]:
    """Every table that a document can ask for, by its name."""
    made = {
        "options": option_table(described),
        "element types": type_table(described),
        "limits": limit_table(described),
    }
    for record in described["records"]:
        made[f"record {record['name']}"] = record_table(record)
    for file in described["files"]:
        name = file["name"] if "name" in file else f"{file['stem']}NNNN"
        made[f"file {name}"] = file_table(described, file)
    return made


# --- documents ------------------------------------------------------------------------------------


def renewed(text: str, made: dict[str, str]) -> str:
    """A document's text with its tables as they should be."""
    marks = MARK.findall(text)
    ends = ["generated" not in mark for mark in marks]
    if ends != [False, True] * (len(marks) // 2):
        raise DescriptionError("a generated table has no end, or an end no beginning")

    def put(match: re.Match[str]) -> str:
        if match[2] not in made:
            raise DescriptionError(f'the program describes nothing called "{match[2]}"')
        return f"{match[1]}\n{made[match[2]]}\n{match[4]}"

    return REGION.sub(put, text)


def stale(text: str, made: dict[str, str]) -> list[str]:
    """Names of the tables that aren't as they should be."""
    now = REGION.findall(renewed(text, made))
    return [old[1] for old, new in zip(REGION.findall(text), now, strict=True) if old != new]


def main(arguments: list[str], root: Path = ROOT) -> int:
    parser = argparse.ArgumentParser(description="Write the documents' tables from the program.")
    parser.add_argument("--check", action="store_true", help="compare, and write nothing")
    parser.add_argument("program", nargs="?", type=Path)
    given = parser.parse_args(arguments)
    program = given.program or Path(os.environ.get("VK_RUND", ROOT / "build/release/vk_rund"))
    status = 0
    try:
        made = tables(describe(program))
        for name in DOCUMENTS:
            path = root / name
            text = path.read_text(encoding="utf-8")
            try:
                differing = stale(text, made)
            except DescriptionError as refusal:
                raise DescriptionError(f"{name}: {refusal}") from refusal
            if given.check and differing:
                status = 1
                listed = ", ".join(f'"{table}"' for table in differing)
                print(f"{name}: not as the program describes it: {listed}. ", end="")
                print("Run scripts/describe_docs.py.")
            elif differing:
                path.write_text(renewed(text, made), encoding="utf-8")
                print(f"{name}: {len(differing)} tables written")
    except DescriptionError as refusal:
        print(refusal, file=sys.stderr)
        return 2
    return status


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
