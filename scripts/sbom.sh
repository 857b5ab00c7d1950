#!/usr/bin/env bash
# Writes the list of components (CycloneDX, JSON): the libraries that the program is linked with and
# the Python packages of vkctl with all extras, with versions and licences.
#
#   scripts/sbom.sh [FILE] [PROGRAM]    (default: build/sbom.json, the release build)
set -euo pipefail
. "$(dirname "${BASH_SOURCE[0]}")/setup.sh"

target=${1:-$ROOT/build/sbom.json}
program=${2:-$ROOT/build/release/vk_rund}
tools=$ROOT/.local/sbom
list=$ROOT/scripts/requirements-sbom.txt

setup_python requirements-check.txt
[ -x "$program" ] || fail "there is no program $program: build it first (./quickstart)"
if ! sha256sum --check --status "$tools/.made_from" 2>/dev/null; then
  say "Setting up the tool that lists components in .local/sbom"
  quietly sbom-venv "$(find_python)" -m venv "$tools" || fail "the Python environment could not be made"
  quietly sbom-pip "$tools/bin/python" -m pip install --no-compile --require-hashes -r "$list" ||
    fail "the tool could not be installed; is there a network?"
  sha256sum "$list" >"$tools/.made_from"
fi

mkdir -p "$(dirname "$target")"
quietly sbom "$tools/bin/cyclonedx-py" environment "$VENV/bin/python" --pyproject "$ROOT/pyproject.toml" \
  --output-reproducible --output-file "$ROOT/.local/log/environment.json" ||
  fail "the components of the environment can't be listed"
"$VENV/bin/python" "$ROOT/scripts/sbom.py" "$program" <"$ROOT/.local/log/environment.json" >"$target~" ||
  fail "the list could not be completed"
quietly sbom-check "$tools/bin/python" - "$target~" <<'PYTHON' || fail "the list doesn't follow its schema"
import sys
from pathlib import Path
from cyclonedx.schema import SchemaVersion
from cyclonedx.validation.json import JsonStrictValidator
import json
text = Path(sys.argv[1]).read_text()
version = SchemaVersion.from_version(json.loads(text)["specVersion"])
sys.exit(str(error) if (error := JsonStrictValidator(version).validate_str(text)) else 0)
PYTHON
mv "$target~" "$target"
say "$target lists $(grep -c '"bom-ref"' "$target") components"
