"""Checks that includes of src/ point downwards, and never around in a circle.

The layers, from the ground up, are the folders below with what is in them; a file may include its
own layer and those under it. Header and source of one name are one module: a module that reaches
itself through others stands in a circle. Lists every offence; status 1 if there is one.
"""

import re
import sys
from pathlib import Path, PurePosixPath

LAYERS = (
    "platform",
    "platform/maths",
    "run/services",
    "model",
    "elemlib",
    "solver",
    "elements",
    "response",
    "run",
)
INCLUDE = re.compile(r'^\s*#\s*include\s*"([^"]+)"', re.MULTILINE)


def includes(source: Path) -> dict[str, list[str]]:
    """The quoted includes of every file below `source`, both by their paths there."""
    files = sorted(path for kind in ("*.cpp", "*.hpp") for path in source.rglob(kind))
    return {
        file.relative_to(source).as_posix(): INCLUDE.findall(file.read_text(encoding="utf-8"))
        for file in files
    }


def layer(path: str) -> int:
    """Height of the file's folder, or of the nearest one around it that is a layer.

    The entry point main.cpp stands above all; -1 for a file outside the layers.
    """
    if "/" not in path:
        return len(LAYERS)
    folders = [parent.as_posix() for parent in PurePosixPath(path).parents]
    return next((LAYERS.index(folder) for folder in folders if folder in LAYERS), -1)


def upward(files: dict[str, list[str]]) -> list[str]:
    """Sentences on the files that break the rule of the layers."""
    found = []
    for name, targets in files.items():
        if layer(name) < 0:
            found.append(f"{name}: its folder is no layer")
        for target in targets:
            if target not in files:
                found.append(f'{name}: "{target}" is no path below src/')
            elif layer(target) > layer(name):
                found.append(f'{name}: "{target}" lies above it')
    return found


def circles(files: dict[str, list[str]]) -> list[str]:
    """Sentences on the modules that reach themselves, one for each way on which that happens."""
    arrows: dict[str, set[str]] = {}
    for name, targets in files.items():
        module = name.rpartition(".")[0]
        others = {target.rpartition(".")[0] for target in targets if target in files}
        arrows.setdefault(module, set()).update(others - {module})
    found = []
    while arrows:
        loose = [module for module, targets in arrows.items() if not targets & arrows.keys()]
        if not loose:
            path = [min(arrows)]  # from here every step leads on, so it must come back
            while path[-1] not in path[:-1]:
                path.append(min(arrows[path[-1]] & arrows.keys()))
            path = path[path.index(path[-1]) :]
            found.append("circle: " + " -> ".join(path))
            arrows[path[0]].discard(path[1])
        for module in loose:
            del arrows[module]
    return found


def main(source: str) -> int:
    files = includes(Path(source))
    found = upward(files) + circles(files)
    print("\n".join(found) or "all includes point downwards")
    return 1 if found else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1] if len(sys.argv) > 1 else "src"))
