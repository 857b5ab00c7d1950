#!/usr/bin/env bash
# Measures which lines the tests run: the solver by its unit tests and its end-to-end tests, vkctl by
# its own tests, commands that these start included. Prints percentages per folder; build/coverage-html
# shows the lines. Takes about five times as long as the tests alone.
set -euo pipefail
. "$(dirname "${BASH_SOURCE[0]}")/setup.sh"

TOOLS=$ROOT/.local/coverage
COUNTS=$ROOT/build/coverage

setup_coverage() {
  local list=$ROOT/scripts/requirements-coverage.txt
  local stamp=$TOOLS/.made_from now
  now=$(sha256sum <"$list")$ROOT
  [ -f "$stamp" ] && [ "$(cat "$stamp")" = "$now" ] && return
  say "Fetching the coverage tools into .local/coverage"
  rm -rf "$TOOLS"
  quietly coverage-pip "$VENV/bin/python" -m pip install --require-hashes --target "$TOOLS" -r "$list" ||
    fail "the coverage tools could not be installed; is there a network?"
  printf '%s' "$now" >"$stamp"
}

# Failed tests are told, but their lines count.
tests() {
  local name=$1
  shift
  say "Running $name"
  quietly "coverage-$name" "$@" || failed=yes
}

setup requirements-check.txt "${BUILD_PACKAGES[@]}" "${CHECK_PACKAGES[@]}"
setup_peer
setup_browser
setup_coverage
build release vk_rund
build coverage
find "$COUNTS" -name '*.gcda' -delete
rm -f "$COUNTS"/python*

failed=
cd "$ROOT"
tests unit-tests ctest --test-dir "$COUNTS" -j "$JOBS" --output-on-failure
tests end-to-end-tests env VK_RUND="$COUNTS/vk_rund" "$VENV/bin/python" -m pytest -q tests/e2e
# The tests' own processes are counted through what the environment tells them.
export PYTHONPATH=$TOOLS
tests vkctl-tests env VK_RUND="$ROOT/build/release/vk_rund" \
  "$VENV/bin/python" -m coverage run --rcfile="$ROOT/scripts/coverage.ini" -m pytest -q vkctl/tests

say "Counting lines"
coverage() { "$VENV/bin/python" -m coverage "$@" --rcfile="$ROOT/scripts/coverage.ini"; }
coverage combine -q
coverage json -q -o "$COUNTS/companion.json"
coverage html -q -d "$ROOT/build/coverage-html/vkctl"
mkdir -p "$ROOT/build/coverage-html/vk_rund"
"$VENV/bin/python" -m gcovr --root "$ROOT" --filter src/ --object-directory "$COUNTS" -j "$JOBS" \
  --gcov-ignore-parse-errors=negative_hits.warn --exclude-throw-branches \
  --json-summary "$COUNTS/solver.json" --html-nested "$ROOT/build/coverage-html/vk_rund/index.html" >"$LOGS/gcovr.log" 2>&1 || {
  tail -n 25 "$LOGS/gcovr.log" >&2
  fail "the solver's counts could not be read"
}
"$VENV/bin/python" scripts/coverage_table.py "$COUNTS/solver.json" "$COUNTS/companion.json"
[ -z "$failed" ] || fail "tests failed; the table counts what they ran"
