#!/usr/bin/env bash
# One Claude Code transcript of about 2 GB (one assistant line of ~2 kB per message, every message
# id distinct) scanned into an empty ledger: wall time and peak RSS. Memory must stay bounded by
# the read chunk and the longest line, not grow with the file.
#
# usage: bench/huge_file.sh [--size-mb N] [--kestrel PATH]
# The transcript is written once to ${KESTREL_BENCH_DIR:-/tmp/kestrel-bench}/huge and reused
# while its size stays the same. Default binary: build/release/cli/kestrel.
set -euo pipefail

size_mb=2048
kestrel=build/release/cli/kestrel
while [ $# -gt 0 ]; do
  case "$1" in
    --size-mb) size_mb=${2:?--size-mb needs a number}; shift 2 ;;
    --kestrel) kestrel=${2:?--kestrel needs a path}; shift 2 ;;
    -h|--help) sed -n '2,9p' "$0" | sed 's/^# \{0,1\}//'; exit 0 ;;
    *) echo "huge_file.sh: unknown argument $1 (try --help)" >&2; exit 2 ;;
  esac
done
case "$size_mb" in ''|*[!0-9]*|0) echo "huge_file.sh: --size-mb needs a positive number" >&2; exit 2 ;; esac
[ -x "$kestrel" ] || { echo "huge_file.sh: no binary at $kestrel (make build, or --kestrel)" >&2; exit 1; }
[ -x /usr/bin/time ] || { echo "huge_file.sh: needs /usr/bin/time (apt-get install time)" >&2; exit 1; }

dir=${KESTREL_BENCH_DIR:-/tmp/kestrel-bench}/huge
transcript=$dir/home/.claude/projects/-home-dev-huge/session.jsonl
stamp=$dir/size-mb
if [ ! -f "$transcript" ] || [ "$(cat "$stamp" 2>/dev/null)" != "$size_mb" ]; then
  mkdir -p "$(dirname "$transcript")"
  echo "huge_file.sh: writing a ${size_mb} MB transcript to $transcript" >&2
  # Each line: a text block of 1.8 kB (varying, so that it does not compress to nothing in the
  # page cache's favour) and a usage object.
  awk -v bytes=$((size_mb * 1024 * 1024)) 'BEGIN {
    pad = ""; for (i = 0; i < 180; i++) pad = pad "lorem ips ";
    written = 0; n = 0;
    while (written < bytes) {
      n++;
      line = sprintf("{\"type\":\"assistant\",\"sessionId\":\"huge-1\",\"cwd\":\"/home/dev/huge\",\"timestamp\":\"2026-03-%02dT%02d:%02d:%02dZ\",\"message\":{\"id\":\"msg_%012d\",\"model\":\"claude-sonnet-4-5-20250929\",\"content\":[{\"type\":\"text\",\"text\":\"%d %s\"}],\"usage\":{\"input_tokens\":%d,\"cache_read_input_tokens\":%d,\"output_tokens\":%d}}}",
        1 + (n / 86400) % 28, (n / 3600) % 24, (n / 60) % 60, n % 60, n, n, pad, 100 + n % 900, n % 5000, 10 + n % 300);
      print line;
      written += length(line) + 1;
    }
  }' > "$transcript"
  echo "$size_mb" > "$stamp"
fi

rm -rf "$dir/support"
mkdir -p "$dir/support"
bytes=$(stat -c %s "$transcript")
lines=$(wc -l < "$transcript")
# Read once so that the timed scan finds the file in the page cache whatever ran before.
cat "$transcript" > /dev/null
/usr/bin/time -f '%e %M' -o "$dir/time.txt" \
  "$kestrel" scan --home "$dir/home" --support-dir "$dir/support" > "$dir/scan.out"
read -r seconds rss_kb < "$dir/time.txt"
printf 'huge_file: %d bytes (%.2f GiB), %d lines: scan %s s, peak RSS %d MiB\n' \
  "$bytes" "$(awk -v b="$bytes" 'BEGIN { print b / 1073741824 }')" "$lines" "$seconds" $((rss_kb / 1024))
