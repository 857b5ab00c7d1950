# shellcheck shell=bash disable=SC2034
# What fuzz.sh and .ci/run have in common: the flags of a target, and the inputs it begins with. Those
# that reach different code are kept, packed, in tests/fuzz/corpus.

# No input needs more than 16 KB or some milliseconds. What is held at an error is not a leak.
FUZZ_FLAGS=(-max_len=16384 -len_control=0 -reload=0 -detect_leaks=0 -timeout=60 -rss_limit_mb=4096)

# NAME FOLDER
unpack_corpus() {
  local packed=$ROOT/tests/fuzz/corpus/$1.tar.xz
  mkdir -p "$2"
  [ ! -f "$packed" ] || tar -xJf "$packed" -C "$2"
}
