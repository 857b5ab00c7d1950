#!/usr/bin/env bash
# Proves that builds don't depend on where they are made: the last commit, built in two folders of
# different names without a compiler cache, gives the same program byte by byte.
#
#   scripts/prove_reproducible.sh [CMAKE ARGUMENT...]
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
export CCACHE_DISABLE=1

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
for place in "$work/one" "$work/a/longer/name"; do
  mkdir -p "$place"
  git -C "$root" archive HEAD | tar -x -C "$place"
  cmake -S "$place" -B "$place/build" -G Ninja -DVK_TESTS=OFF -DVK_MKL_ROOT="$root/.local/venv" "$@"
  cmake --build "$place/build" -j "${JOBS:-$(nproc)}" --target vk_rund
done
cmp "$work/one/build/vk_rund" "$work/a/longer/name/build/vk_rund"
if grep -q -F "$work" "$work/one/build/vk_rund"; then
  printf 'error: the program tells the folder it was built in\n' >&2
  exit 1
fi
printf 'the same %s bytes from two folders\n' "$(stat -c %s "$work/one/build/vk_rund")"
