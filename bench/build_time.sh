#!/usr/bin/env bash
# Times CI's build from nothing: `cmake --preset ci`, `cmake --build --preset ci` and
# `ctest --preset ci` on a fresh copy of the sources with an empty build folder and ccache off,
# then reports each step's wall time and CPU time (user + system, the compilers included) and
# the per-file compile times from the build's .ninja_log. Other builds on the machine stretch
# the wall times and the per-file times; the CPU time is what they disturb least.
#
# usage: bench/build_time.sh [--rev REV] [--keep] [--no-test]
#   --rev REV   time the sources of commit REV instead of the working tree (uncommitted files
#               included, ignored ones such as build/ left out)
#   --keep      leave the copy and its build folder in place (the path is printed)
#   --no-test   configure and build only
# Package installation is not included: run `make deps` first.
set -euo pipefail

rev=""
keep=0
test=1
while [ $# -gt 0 ]; do
  case "$1" in
    --rev) rev=${2:?--rev needs a commit}; shift 2 ;;
    --keep) keep=1; shift ;;
    --no-test) test=0; shift ;;
    -h|--help) sed -n '2,12p' "$0" | sed 's/^# \{0,1\}//'; exit 0 ;;
    *) echo "build_time.sh: unknown argument $1 (try --help)" >&2; exit 2 ;;
  esac
done

repo=$(cd "$(dirname "$0")/.." && pwd)
work=$(mktemp -d "${TMPDIR:-/tmp}/kestrel-build-time.XXXXXX")
if [ "$keep" -eq 0 ]; then trap 'rm -rf "$work"' EXIT; fi
src=$work/src
mkdir -p "$src"
if [ -n "$rev" ]; then
  git -C "$repo" archive "$rev" | tar -x -C "$src"
else
  (cd "$repo" && git ls-files -z --cached --others --exclude-standard |
     xargs -0 -r sh -c 'for f; do [ -e "$f" ] && printf "%s\0" "$f"; done' sh |
     tar --null -T - -c) | tar -x -C "$src"
fi

if [ ! -x /usr/bin/time ]; then
  echo "build_time.sh: /usr/bin/time (GNU time) is missing; install the Debian package \`time\`" >&2
  exit 2
fi
export CCACHE_DISABLE=1
# step NAME COMMAND...: runs COMMAND with its output in $work/NAME.log and its times in
# $work/NAME.time ("wall user system", seconds).
step() {
  local name=$1
  shift
  local rc=0
  /usr/bin/time -f '%e %U %S' -o "$work/$name.time" "$@" >"$work/$name.log" 2>&1 || rc=$?
  # GNU time puts a line about a failed command's status first.
  tail -n 1 "$work/$name.time" >"$work/$name.time.last" && mv "$work/$name.time.last" "$work/$name.time"
  return "$rc"
}
show() {
  read -r wall user sys <"$work/$1.time"
  printf '%-10s %8.1f s wall %8.1f s CPU%s\n' "$1:" "$wall" "$(awk -v u="$user" -v s="$sys" \
    'BEGIN { print u + s }')" "${2:-}"
}

cd "$src"
step configure cmake --preset ci || { cat "$work/configure.log" >&2; exit 1; }
step build cmake --build --preset ci || { tail -n 50 "$work/build.log" >&2; exit 1; }
test_rc=0
if [ "$test" -eq 1 ]; then
  step test ctest --preset ci || test_rc=$?
fi

log=$src/build/ci/.ninja_log
echo "sources:   ${rev:-working tree of $repo}"
echo "machine:   $(nproc) CPUs, load average $(cut -d' ' -f1-3 /proc/loadavg) at the end"
show configure
show build
if [ "$test" -eq 1 ]; then
  show test " ($(grep -E 'tests passed|tests failed' "$work/test.log"))"
fi
awk '{ w += $1; c += $2 + $3 } END { printf "total:     %8.1f s wall %8.1f s CPU\n", w, c }' \
  "$work"/*.time
# .ninja_log: start_ms end_ms mtime target hash; one line per output, the first is a header.
awk 'NR > 1 && ($4 ~ /\.o$/ || $4 ~ /\.gch$/) { n++; s += $2 - $1 }
     NR > 1 && !($4 ~ /\.o$/ || $4 ~ /\.gch$/) { o += $2 - $1 }
     END { printf "compiling: %d files, %.1f s summed; linking and the rest: %.1f s summed\n",
           n, s / 1000, o / 1000 }' "$log"
echo "slowest files (s):"
awk 'NR > 1 && ($4 ~ /\.o$/ || $4 ~ /\.gch$/) { printf "%8.1f  %s\n", ($2 - $1) / 1000, $4 }' "$log" |
  sort -rn | head -n 10
if [ "$keep" -eq 1 ]; then echo "kept:      $work"; fi
if [ "$test_rc" -ne 0 ]; then
  echo "build_time.sh: ctest failed; see $work/test.log" >&2
  trap - EXIT
  exit "$test_rc"
fi
