#!/usr/bin/env bash
# shellcheck disable=SC2329
# Style, types and the include rules: scripts/lint.sh [--fix] [CHECK...], all checks unless named.
# --fix mends what the formatters can. The tools, pinned, are fetched into .local/lint the first time.
set -euo pipefail
. "$(dirname "${BASH_SOURCE[0]}")/setup.sh"

LINT=$ROOT/.local/lint
CHECKS=(cpp-format includes imports python-style python-format types shell)
TYPED=(vkctl/src verification tests/e2e scripts bench)
FIX=

setup_lint() {
  local list=$ROOT/scripts/requirements-lint.txt
  local stamp=$LINT/.made_from now
  now=$(sha256sum <"$list")$ROOT
  [ -f "$stamp" ] && [ "$(cat "$stamp")" = "$now" ] && return
  say "Fetching the lint tools into .local/lint"
  quietly lint-venv "$(find_python)" -m venv "$LINT" || fail "the lint tools' environment could not be made"
  quietly lint-pip "$LINT/bin/python" -m pip install --require-hashes -r "$list" ||
    fail "the lint tools could not be installed; is there a network?"
  printf '%s' "$now" >"$stamp"
}

# files PATTERN...: the tree's own files of these names.
files() {
  local names=() pattern
  for pattern in "$@"; do names+=(-o -name "$pattern"); done
  find . \( -path ./.git -o -path ./.local -o -path './build*' \) -prune -o \
    -type f \( "${names[@]:1}" \) -print
}

lint_cpp-format() {
  local how=(--dry-run -Werror)
  [ -z "$FIX" ] || how=(-i)
  files '*.cpp' '*.hpp' | xargs -d '\n' -P "$JOBS" -n 16 "$LINT/bin/clang-format" "${how[@]}"
}

# The rule, and that it finds what breaks it.
lint_includes() {
  local broken
  "$LINT/bin/python" scripts/check_includes.py src || return 1
  for broken in upward_include include_circle; do
    ! "$LINT/bin/python" scripts/check_includes.py "tests/data/$broken" >/dev/null || {
      say "what breaks the rule in tests/data/$broken was not found"
      return 1
    }
  done
}

lint_imports() {
  "$LINT/bin/python" scripts/check_imports.py vkctl/src/vkctl
}

lint_python-style() {
  "$LINT/bin/ruff" check --quiet ${FIX:+--fix}
}

lint_python-format() {
  local how=(--diff)
  [ -z "$FIX" ] || how=()
  "$LINT/bin/ruff" format --quiet "${how[@]}"
}

# The companion's tests apart: they have a conftest of their own, and arguments that are fixtures and
# rows of tables, for which annotations would say nothing more.
lint_types() {
  local mypy=("$LINT/bin/mypy" --num-workers "$JOBS" --python-executable "$VENV/bin/python")
  "${mypy[@]}" "${TYPED[@]}" &&
    "${mypy[@]}" --allow-untyped-defs --allow-incomplete-defs --allow-untyped-calls vkctl/tests
}

lint_shell() {
  "$LINT/bin/shellcheck" check quickstart .ci/run scripts/*.sh
}

# Not among all checks: needs the packages and builds of .ci/run, and minutes. What only one maths
# library's build compiles is read with that build's options.
lint_clang-tidy() {
  run-clang-tidy-14 -quiet -j "$JOBS" -p build/release-clang "^$ROOT/src/" &&
    run-clang-tidy-14 -quiet -j "$JOBS" -p build/release-open "^$ROOT/src/platform/maths/"
}

cd "$ROOT"
if [ "${1:-}" = --list ]; then
  printf '%s\n' "${CHECKS[@]}"
  exit
fi
if [ "${1:-}" = --fix ]; then
  FIX=yes
  shift
fi
setup_lint
status=0
for check in "${@:-${CHECKS[@]}}"; do
  [ "$(type -t "lint_$check")" = function ] || fail "no check '$check'; there are: ${CHECKS[*]}"
  "lint_$check" || {
    say "lint: $check failed"
    status=1
  }
done
exit "$status"
