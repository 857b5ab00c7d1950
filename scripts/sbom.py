"""Completes a CycloneDX list of a Python environment to the one of what is shipped.

Kept are the packages that vkctl and its extras need; added are the libraries the program is linked
with. Run by scripts/sbom.sh: sbom.py PROGRAM, the environment's list on standard input.
"""

import json
import re
import subprocess
import sys
from importlib.metadata import PackageNotFoundError, requires, version
from pathlib import Path
from typing import Any

from packaging.requirements import Requirement
from packaging.utils import canonicalize_name

# Debian's packages of what the program may link, with their licences.
LICENCES = {
    "libgomp": "GPL-3.0-or-later WITH GCC-exception-3.1",
    "libgcc-s": "GPL-3.0-or-later WITH GCC-exception-3.1",
    "libstdc++": "GPL-3.0-or-later WITH GCC-exception-3.1",
    "libgfortran": "GPL-3.0-or-later WITH GCC-exception-3.1",
    "libquadmath": "LGPL-2.1-or-later",
    "libc6": "LGPL-2.1-or-later",
    "libmumps": "CECILL-C",
    "libpord": "CECILL-C",
    "libscotch": "CECILL-C",
    "libopenblas": "BSD-3-Clause",
    "zlib": "Zlib",
    "libbz2": "bzip2-1.0.6",
    "liblzma": "0BSD",
}


def needed(name: str, extras: set[str], found: set[str]) -> set[str]:
    """Adds the packages that a distribution needs with these extras, itself included."""
    key = canonicalize_name(name)
    try:
        lines = requires(name) or []
    except PackageNotFoundError:
        return found
    found.add(key)
    for requirement in map(Requirement, lines):
        wanted = requirement.marker is None or any(
            requirement.marker.evaluate({"extra": extra}) for extra in {"", *extras}
        )
        inner = canonicalize_name(requirement.name)
        if wanted and (inner not in found or inner == key and requirement.extras - extras):
            needed(requirement.name, set(requirement.extras), found)
    return found


def shared_libraries(program: str) -> list[dict[str, Any]]:
    """The packages whose libraries the loader takes for the program."""
    lines = subprocess.run(["ldd", program], capture_output=True, text=True, check=True).stdout
    packages = {owner(path) for path in re.findall(r"=> (/\S+)", lines)}
    return [system_package(*package) for package in sorted(packages)]


def owner(path: str) -> tuple[str, str]:
    """Name and version of the Debian package that a library is from."""
    real = subprocess.run(["realpath", path], capture_output=True, text=True, check=True)
    name = real.stdout.strip()
    for candidate in (name, name.removeprefix("/usr"), path, path.removeprefix("/usr")):
        asked = subprocess.run(["dpkg-query", "-S", candidate], capture_output=True, text=True)
        if asked.returncode == 0:
            package = asked.stdout.split(":")[0]
            form = ["dpkg-query", "-W", "-f", "${Version}\n", package]
            told = subprocess.run(form, capture_output=True, text=True, check=True)
            return package, told.stdout.splitlines()[0]
    raise SystemExit(f"error: no Debian package owns {path}")


def system_package(name: str, release: str) -> dict[str, Any]:
    licence = next((text for start, text in LICENCES.items() if name.startswith(start)), None)
    if licence is None:
        raise SystemExit(f"error: the licence of {name} is not known; add it to {__file__}")
    return component(name, release, f"pkg:deb/debian/{name}@{release}", {"expression": licence})


def component(name: str, release: str, purl: str, licence: dict[str, Any]) -> dict[str, Any]:
    return {
        "type": "library",
        "bom-ref": purl,
        "name": name,
        "version": release,
        "purl": purl,
        "licenses": [licence],
    }


def static_run_time(program: str) -> list[dict[str, Any]]:
    """GCC's OpenMP run-time, which the build links statically where it can."""
    if b"GOMP_CPU_AFFINITY" not in Path(program).read_bytes():
        return []
    asked = ["c++", "-print-file-name=libgomp.a"]
    told = subprocess.run(asked, capture_output=True, text=True, check=True).stdout
    package, release = owner(told.strip())
    purl = f"pkg:deb/debian/{package}@{release}"
    return [component("libgomp", release, purl, {"expression": LICENCES["libgomp"]})]


def linked(program: str) -> list[dict[str, Any]]:
    """Everything in the program or loaded with it."""
    told = subprocess.run([program, "--version"], capture_output=True, text=True, check=True)
    found = shared_libraries(program) + static_run_time(program)
    if match := re.search(r"oneMKL (\S+)", told.stdout):
        name = "Intel Simplified Software License"
        purl = f"pkg:generic/onemkl@{match[1]}"
        found.append(component("oneMKL", match[1], purl, {"license": {"name": name}}))
    return found


def main(program: str) -> None:
    bom = json.load(sys.stdin)
    names = needed("vkctl", {"all", "mesh", "view"}, set()) - {"vkctl"}
    kept = [part for part in bom["components"] if canonicalize_name(part["name"]) in names]
    libraries = linked(program)
    root = bom["metadata"]["component"]
    root["version"] = version("vkctl")
    refs = {part["bom-ref"] for part in kept} | {root["bom-ref"]}
    bom["components"] = kept + libraries
    bom["dependencies"] = [
        {**entry, "dependsOn": [ref for ref in entry.get("dependsOn", []) if ref in refs]}
        for entry in bom["dependencies"]
        if entry["ref"] in refs
    ]
    for entry in bom["dependencies"]:
        if entry["ref"] == root["bom-ref"]:
            entry["dependsOn"] = sorted({*entry["dependsOn"], *(x["bom-ref"] for x in libraries)})
    json.dump(bom, sys.stdout, indent=2)
    print()


if __name__ == "__main__":
    main(sys.argv[1])
