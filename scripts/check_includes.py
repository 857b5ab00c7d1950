"""Checks that includes of src/ point downwards.

The layers, from the ground up, are the folders below with what is in them; a file may include its
own layer and those under it. Lists every offence; status 1 if there is one.
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


def layer(path: str) -> int:
    """Height of the file's folder, or of the nearest one around it that is a layer.

    The entry point main.cpp stands above all; -1 for a file outside the layers.
    """
    if "/" not in path:
        return len(LAYERS)
    folders = [parent.as_posix() for parent in PurePosixPath(path).parents]
    return next((LAYERS.index(folder) for folder in folders if folder in LAYERS), -1)


def offences(source: Path) -> list[str]:
    """Sentences on the files below `source` that break the rule."""
    found = []
    for file in sorted(path for kind in ("*.cpp", "*.hpp") for path in source.rglob(kind)):
        name = file.relative_to(source).as_posix()
        if layer(name) < 0:
            found.append(f"{name}: its folder is no layer")
        for target in INCLUDE.findall(file.read_text(encoding="utf-8")):
            if not (source / target).is_file():
                found.append(f'{name}: "{target}" is no path below src/')
            elif layer(target) > layer(name):
                found.append(f'{name}: "{target}" lies above it')
    return found


def main(source: str) -> int:
    found = offences(Path(source))
    print("\n".join(found) or "all includes point downwards")
    return 1 if found else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1] if len(sys.argv) > 1 else "src"))
