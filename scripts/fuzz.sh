#!/bin/sh
# The long fuzzing run behind `make fuzz`: each harness of build/fuzz for FUZZ_SECONDS (default
# 300) over its corpus, then the inputs it found that add coverage merged into
# tests/fuzz/corpus/<name> (libFuzzer's -merge keeps the corpus small). A crash, leak or timeout
# leaves its input in build/fuzz/findings/<name>/ and makes the run fail after the others ran.
#
# usage: scripts/fuzz.sh [NAME...]   (default: every harness built)
set -eu
cd "$(dirname "$0")/.."

seconds=${FUZZ_SECONDS:-300}
bin_dir=build/fuzz/tests/fuzz
if [ $# -eq 0 ]; then
  set -- $(ls "$bin_dir" | sed -n 's/^kestrel-fuzz-//p')
fi
[ $# -gt 0 ] || { echo "fuzz.sh: no harness in $bin_dir (cmake --build --preset fuzz)" >&2; exit 1; }

failed=""
for name in "$@"; do
  bin=$bin_dir/kestrel-fuzz-$name
  corpus=tests/fuzz/corpus/$name
  work=build/fuzz/findings/$name
  [ -x "$bin" ] || { echo "fuzz.sh: no harness $bin" >&2; exit 1; }
  mkdir -p "$work/new" "$corpus"
  echo "== $name: ${seconds} s" >&2
  if ! ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1 \
      "$bin" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 -print_final_stats=1 \
      -artifact_prefix="$work/" "$work/new" "$corpus" 2> "$work/log"; then
    failed="$failed $name"
    tail -n 40 "$work/log" >&2
  fi
  # Edges only (no hit counts) decide what joins, which keeps the corpus in the repository small.
  "$bin" -merge=1 -use_counters=0 "$corpus" "$work/new" 2> "$work/merge.log" || true
  rm -rf "$work/new"
done

if [ -n "$failed" ]; then
  echo "fuzz.sh: findings in:$failed (inputs under build/fuzz/findings)" >&2
  exit 1
fi
echo "fuzz.sh: no findings" >&2
