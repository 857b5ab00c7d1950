"""Lays out the pages of the site: the documents where they lie in the repository, and one page a
room of vkctl for the reference of its functions."""

import shutil
import sys
from pathlib import Path

DOCUMENTS = ("*.md", "docs/**/*.md", "docs/**/*.png", "docs/**/*.gif", "vkctl/*.md")
# Rooms that other programs have no use for.
INTERNAL = ("basics", "commands", "terminal")
HEADLESS = """::: {}
    options:
      show_root_heading: false
      show_root_toc_entry: false"""


def copy_documents(root: Path, pages: Path) -> None:
    for pattern in DOCUMENTS:
        for path in root.glob(pattern):
            target = pages / path.relative_to(root)
            target.parent.mkdir(parents=True, exist_ok=True)
            shutil.copyfile(path, target)
    for name in ("site.css", "iframe-worker.js"):
        shutil.copyfile(Path(__file__).with_name(name), pages / name)


def modules(room: Path) -> list[str]:
    """The room and the modules in it, by their import paths; alone if it says what it offers."""
    if "__all__" in (room / "__init__.py").read_text():
        return [f"vkctl.{room.name}"]
    package = room.parents[1]
    names = []
    for path in sorted(room.rglob("*.py")):
        parts = path.relative_to(package).with_suffix("").parts
        if not parts[-1].startswith("_"):
            names.append(".".join(parts))
        elif parts[-1] == "__init__":
            names.append(".".join(parts[:-1]))
    return sorted(names)


def write_functions(package: Path, folder: Path) -> None:
    folder.mkdir()
    rooms = [path.parent for path in sorted(package.glob("*/__init__.py"))]
    links = []
    for room in rooms:
        if room.name in INTERNAL:
            continue
        own, *others = modules(room)
        blocks = [f"# {own}", HEADLESS.format(own), *(f"::: {name}" for name in others)]
        (folder / f"{room.name}.md").write_text("\n\n".join(blocks) + "\n")
        links.append(f"- [vkctl.{room.name}]({room.name}.md)")
    blocks = ["# vkctl", HEADLESS.format("vkctl"), *links]
    (folder / "index.md").write_text("\n\n".join(blocks) + "\n")


def main(root: Path, pages: Path) -> None:
    shutil.rmtree(pages, ignore_errors=True)
    pages.mkdir(parents=True)
    copy_documents(root, pages)
    write_functions(root / "vkctl" / "src" / "vkctl", pages / "functions")


if __name__ == "__main__":
    main(Path(sys.argv[1]), Path(sys.argv[2]))
