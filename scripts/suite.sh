# shellcheck shell=bash
# The parts of the test suite, for check and .ci/run. Each part leaves a JUnit report in
# build/reports, goes on after failures, and shows what failed; `total` counts them all.

REPORTS=$ROOT/build/reports
LONGEST_PART=${LONGEST_PART:-25m}
# Tests start thousands of processes of vkctl, which would all compile it.
unset PYTHONDONTWRITEBYTECODE

start_suite() {
  rm -rf "$REPORTS"
  mkdir -p "$REPORTS"
}

# Shows a part's output only if it failed, and how many seconds it took.
part() {
  local name=$1 begin=$SECONDS
  shift
  printf '%-34s' "$name"
  local log=$LOGS/test-$name.log
  if "$@" >"$log" 2>&1; then
    say "passed $(printf %5d $((SECONDS - begin))) s"
  else
    say "FAILED $(printf %5d $((SECONDS - begin))) s"
    tail -n 60 "$log" >&2
    [ -f "$REPORTS/$name.xml" ] || report "$name" 1 1
  fi
}

# A report for parts that count otherwise: NAME TESTS FAILURES.
report() {
  printf '<testsuite name="%s" tests="%s" failures="%s"/>\n' "$1" "$2" "$3" >"$REPORTS/$1.xml"
}

# A part that counts as one test.
single_part() {
  part "$@"
  [ -f "$REPORTS/$1.xml" ] || report "$1" 1 0
}

lint() {
  local check
  for check in $("$ROOT/scripts/lint.sh" --list); do
    single_part "lint-$check" "$ROOT/scripts/lint.sh" "$check"
  done
}

clang_tidy() {
  single_part lint-clang-tidy "$ROOT/scripts/lint.sh" clang-tidy
}

# A broken link or anchor fails.
site() {
  single_part site "$ROOT/scripts/site.sh"
}

# Nothing that the tests run writes into the sources.
clean_tree() {
  single_part clean-tree nothing_changed
}

nothing_changed() {
  git -C "$ROOT" status --porcelain
  [ -z "$(git -C "$ROOT" status --porcelain)" ]
}

unit_tests() {
  part "unit-$1" ctest --test-dir "$ROOT/build/$1" -j "$JOBS" --output-on-failure \
    --no-tests=error --output-junit "$REPORTS/unit-$1.xml"
}

# Tests of the program of a preset, file by file on all processors: NAME PRESET, and what pytest is told.
# A process of tests that dies ends them, since the others would wait for its part.
pytest_part() {
  local name=$1 preset=$2
  shift 2
  part "$name" timeout --kill-after=60 "$LONGEST_PART" env VK_RUND="$ROOT/build/$preset/vk_rund" \
    "$VENV/bin/python" -m pytest -q -n "$JOBS" --max-worker-restart=0 --dist loadfile \
    --junitxml "$REPORTS/$name.xml" "$@"
}

# The built program from outside: PRESET, and what else the tests are told.
end_to_end_tests() {
  local preset=$1
  shift
  pytest_part "end-to-end-$preset" "$preset" "$ROOT/tests/e2e" "$@"
}

# What runs on several threads, under the thread sanitizer: every parallel region of the solver, from
# its modules and from the whole program. The other tests would find nothing more in ten times the time.
thread_tests() {
  part unit-tsan ctest --test-dir "$ROOT/build/tsan" -j "$JOBS" --output-on-failure --no-tests=error \
    -R 'Assembly|Scatter|Supports|Fenod|Compsave|Logger|RunoptThreads|Loads|Analysis|Sleblocks|Slepccgsolver|Slesparse|Driver' \
    --output-junit "$REPORTS/unit-tsan.xml"
  pytest_part end-to-end-tsan tsan "$ROOT/tests/e2e/test_results.py" "$ROOT/tests/e2e/test_log.py" \
    "$ROOT/tests/e2e/test_openmp.py"
}

# The build as others use it: installed, inside of another project, and what it refuses.
install_tests() {
  part install env VK_RUND="$ROOT/build/release/vk_rund" \
    "$VENV/bin/python" -m pytest -q "$ROOT/tests/install" --junitxml "$REPORTS/install.xml"
}

python_tests() {
  pytest_part vkctl release -m "not thorough" "$ROOT/vkctl/tests" "$ROOT/verification/tests"
}

# Kills in every moment, real clusters and browsers, whole tutorials.
thorough_tests() {
  pytest_part vkctl-thorough release -m thorough "$ROOT/vkctl/tests"
}

# The suite ends with a line "N passed, N failed" of its own.
verification() {
  [ -f "$ROOT/verification/run.py" ] || return 0
  part verification env VK_RUND="$ROOT/build/release/vk_rund" \
    "$VENV/bin/python" "$ROOT/verification/run.py" --jobs "$JOBS"
  local passed failed
  if read -r passed _ failed _ < <(tail -n 1 "$LOGS/test-verification.log") &&
    [[ $passed =~ ^[0-9]+$ && $failed =~ ^[0-9]+$ ]]; then
    report verification $((passed + failed)) "$failed"
  fi
}

# Prints the last line, "N passed, N failed"; false if any failed.
total() {
  "$VENV/bin/python" "$ROOT/scripts/count_tests.py" "$REPORTS"
}
