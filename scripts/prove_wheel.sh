#!/usr/bin/env bash
# Proves the wheel: built from the source archive of the last commit, installed into empty
# environments outside of the checkout, where `vkctl demo` solves with the program of the wheel.
#
#   scripts/prove_wheel.sh [PYTHON...]     (default: every python3.11 to 3.13 there is)
#
# VK_MATH chooses the back end, else the wheel takes oneMKL where it is found.
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
. "$root/scripts/setup.sh"
# Nothing of the checkout or of the caller may help.
unset VK_RUND PYTHONPATH

# Pythons that run, from the search path and from pyenv.
pythons() {
  local version python
  for version in 3.11 3.12 3.13; do
    for python in "/usr/bin/python$version" "${PYENV_ROOT:-$HOME/.pyenv}/versions/$version".*/bin/python; do
      "$python" -c 'import venv, ensurepip' 2>/dev/null || continue
      printf '%s\n' "$python"
      break
    done
  done
}

# prove PYTHON WHEEL FOLDER
prove() {
  local python=$1 wheel=$2 place=$3
  mkdir "$place"
  cd "$place"
  "$python" -m venv env
  env/bin/python -m pip --disable-pip-version-check install -q "$wheel"
  env/bin/vkctl --version
  env/bin/vkctl demo cantilever | tee told
  grep -q '^no picture: ' told || fail "the extras are there, but weren't asked for"
  env/bin/python - <<'PYTHON' || fail "vkctl doesn't use the program it came with"
import sys
from pathlib import Path
from vkctl.running.run import find_vk_rund
assert find_vk_rund() == Path(sys.prefix).resolve() / "bin" / "vk_rund", find_vk_rund()
PYTHON
  grep -q '^results of load case 2, ' told || fail "the demo was not solved"
  case $(env/bin/vk_rund --version) in
    *oneMKL*) ! ldd env/bin/vk_rund | grep -E 'libgomp|libstdc\+\+|libgcc' ||
      fail "the wheel's program needs run-times that a bare system lacks" ;;
  esac
  say "proved: $("$python" --version), $(env/bin/vk_rund --version)"
}

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
mapfile -t chosen < <(if [ $# -gt 0 ]; then printf '%s\n' "$@"; else pythons; fi)
[ ${#chosen[@]} -gt 0 ] || fail "no Python from 3.11 to 3.13 with the venv module: apt install python3-venv"

git clone -q --no-hardlinks "$root" "$work/clone"
"${chosen[0]}" -m venv "$work/build"
"$work/build/bin/python" -m pip --disable-pip-version-check install -q build
[ ! -d "$VENV" ] || export VK_MKL_ROOT=$VENV
# First the archive, then the wheel from what the archive holds.
"$work/build/bin/python" -m build --outdir "$work" "$work/clone" \
  "--config-setting=cmake.define.VK_MATH=$VK_MATH" >"$work/build.log" 2>&1 || {
  grep "vk_rund can't be built" "$work/build.log" || tail -n 30 "$work/build.log"
  fail "the wheel could not be built"
}
ls -sh "$work"/vkctl-*
for python in "${chosen[@]}"; do
  (prove "$python" "$work"/vkctl-*.whl "$work/on-$("$python" -c 'import sys; print(*sys.version_info[:2], sep=".")')")
done
