#!/usr/bin/env bash
# Feeds mutated working directories to a fuzz target, for hours if asked to:
#
#   scripts/fuzz.sh TARGET INPUTS      scripts/fuzz.sh directory 10000000
#
# TARGET is readers or directory. What was found worth keeping, and how many inputs have been run, lie
# in build/fuzz and are taken up by the next call; INPUTS is the sum over all calls. It can be
# stopped at any time. Ends with 1 at the first finding, whose input is kept in build/fuzz/findings.
set -euo pipefail
ROOT=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
cd "$ROOT"

[ $# = 2 ] || {
  sed -n 's/^# \{0,1\}//;2,9p' "${BASH_SOURCE[0]}" >&2
  exit 2
}
target=build/fuzz/fuzz/fuzz_$1
inputs=$2
corpus=build/fuzz/corpus/fuzz_$1
counts=build/fuzz/$1.counts # a line for each round: inputs, seconds, commit
log=build/fuzz/$1.log
CHUNK=${CHUNK:-250000} # inputs of a round; a process that is made anew keeps its memory small

. scripts/fuzz_corpus.sh
cmake --preset fuzz >"$log"
cmake --build build/fuzz --target "fuzz_$1" >>"$log"
mkdir -p build/fuzz/findings
unpack_corpus "$1" "$corpus"
touch "$counts"

sum() { awk '{ n += $1 } END { printf "%d", n }' "$counts"; }

# One round; its executions less those of the corpus that it begins with are the new inputs.
round() {
  local known status=0 begun=$SECONDS ran
  known=$(find "$corpus" -type f | wc -l)
  "$target" -runs=$((known + CHUNK)) "${FUZZ_FLAGS[@]}" -entropic=0 -reduce_inputs=0 -print_final_stats=1 \
    -artifact_prefix=build/fuzz/findings/ "$corpus" >"$log" 2>&1 || status=$?
  ran=$(awk '/^stat::number_of_executed_units/ { print $2 }' "$log")
  if [ -n "$ran" ] && [ "$ran" -gt "$known" ]; then
    printf '%d %d %s\n' $((ran - known)) $((SECONDS - begun)) "$(git rev-parse --short HEAD)" >>"$counts"
  fi
  return "$status"
}

INTERRUPTED=72 # libFuzzer's status then
while [ "$(sum)" -lt "$inputs" ]; do
  round || {
    [ $? != "$INTERRUPTED" ] || exit 130
    grep -E 'finding:|ERROR|SUMMARY|runtime error|Test unit written' "$log" || tail -n 20 "$log"
    printf '%s: ended after %d inputs; see %s\n' "$1" "$(sum)" "$log"
    exit 1
  } >&2
  printf '%s: %d inputs without a finding\n' "$1" "$(sum)"
done
