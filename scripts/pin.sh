#!/usr/bin/env bash
# Chooses versions anew, within the ranges of pyproject.toml, and writes the lists that the set-up
# installs, with hashes. Versions that are listed already stay unless UPGRADE=1. Needs uv
# (pip install uv).
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")"

MKL=2026.2.0

# compile LIST INPUT...: a list for Python 3.11 and later.
compile() {
  local list=$1
  shift
  uv pip compile --quiet --universal --python-version 3.11 --generate-hashes \
    --custom-compile-command scripts/pin.sh ${UPGRADE:+--upgrade} --output-file "$list" "$@"
}

compile requirements-check.txt --extra test ../pyproject.toml requirements.in
compile requirements.txt --constraint requirements-check.txt requirements.in
compile requirements-sbom.txt requirements-sbom.in
printf 'mkl-static==%s\nmkl-include==%s\n' "$MKL" "$MKL" |
  compile requirements-mkl.txt --no-deps -
