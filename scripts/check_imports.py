"""Checks that the rooms of vkctl import downwards, and that no module imports in a circle.

The layers, from the ground up, are the folders below; a module may import its own layer and those
under it. Imports inside functions and those for types alone count too. Lists every offence;
status 1 if there is one.
"""

from __future__ import annotations

import ast
import sys
from pathlib import Path

PACKAGE = "vkctl"
LAYERS = (
    "basics",
    "shapes",
    "directory",
    "stress",
    "ask",
    "prepare",
    "check",
    "running",
    "spread",
    "view",
    "optimise",
    "study",
    "report",
    "terminal",
    "commands",
)
TOP = ("", "__main__", "cli")  # the package itself and the entry points stand above all

Edges = dict[str, set[str]]  # module: the modules that it imports, by names below the package


def modules(source: Path) -> dict[str, Path]:
    """Files by module name below the package: "check.findings", "check" for its __init__."""
    found = {}
    for path in sorted(source.rglob("*.py")):
        parts = path.relative_to(source).with_suffix("").parts
        found[".".join(parts[:-1] if parts[-1] == "__init__" else parts)] = path
    return found


def layer(module: str) -> int:
    """Height of the module's room; -1 for a room that is no layer."""
    if module in TOP:
        return len(LAYERS)
    room = module.partition(".")[0]
    return LAYERS.index(room) if room in LAYERS else -1


def imported(module: str, path: Path, known: dict[str, Path]) -> set[str]:
    """Modules of the package that a file imports, those of enclosing packages included."""
    found: set[str] = set()
    package = module if path.name == "__init__.py" else module.rpartition(".")[0]
    for node in ast.walk(ast.parse(path.read_text(encoding="utf-8"))):
        if isinstance(node, ast.Import):
            names = [alias.name for alias in node.names]
        elif isinstance(node, ast.ImportFrom):
            start = _start(node, package)
            names = [f"{start}.{alias.name}" for alias in node.names]
        else:
            continue
        for name in names:
            if name == PACKAGE or name.startswith(f"{PACKAGE}."):
                found |= _nearest(name.removeprefix(PACKAGE).lstrip("."), known)
    # A package runs before its modules: that is no choice of theirs.
    return {name for name in found if not f"{module}.".startswith(f"{name}." if name else ".")}


def _start(node: ast.ImportFrom, package: str) -> str:
    """Full name of the module that a from-import names."""
    if not node.level:
        return node.module or ""
    parts = package.split(".") if package else []
    parts = parts[: len(parts) - node.level + 1]
    return ".".join((PACKAGE, *parts, *(node.module or "").split("."))).rstrip(".")


def _nearest(name: str, known: dict[str, Path]) -> set[str]:
    """The module that a dotted name lies in, and the packages around it that run with it."""
    parts = name.split(".") if name else []
    while parts and ".".join(parts) not in known:
        parts.pop()
    return {".".join(parts[:count]) for count in range(1, len(parts) + 1)}


def edges(source: Path) -> Edges:
    """Imports between the modules below `source`."""
    known = modules(source)
    return {name: imported(name, path, known) for name, path in known.items()}


def circles(graph: Edges) -> list[list[str]]:
    """Circles of imports, each once, told from its first module in alphabetical order."""
    found: list[list[str]] = []
    done: set[str] = set()

    def follow(module: str, path: list[str]) -> None:
        if module in path:
            ring = path[path.index(module) :]
            first = ring.index(min(ring))
            ring = ring[first:] + ring[:first]
            if ring not in found:
                found.append(ring)
            return
        if module in done:
            return
        for target in sorted(graph.get(module, ())):
            follow(target, [*path, module])
        done.add(module)

    for module in sorted(graph):
        follow(module, [])
    return found


def offences(source: Path) -> list[str]:
    """Sentences on the modules below `source` that break a rule."""
    graph = edges(source)
    found = []
    for module, targets in graph.items():
        if layer(module) < 0:
            found.append(f"{module}: its room is no layer")
        found += [
            f"{module}: {target} lies above it"
            for target in sorted(targets)
            if layer(target) > layer(module) >= 0
        ]
    found += [f"circle: {' -> '.join([*ring, ring[0]])}" for ring in circles(graph)]
    return found


def main(source: str) -> int:
    found = offences(Path(source))
    print("\n".join(found) or "all imports point downwards")
    return 1 if found else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1] if len(sys.argv) > 1 else "vkctl/src/vkctl"))
