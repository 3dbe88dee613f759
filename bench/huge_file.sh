#!/usr/bin/env bash
# One agent log of about 2 GB scanned into an empty ledger: wall time and peak RSS. Memory must
# stay bounded by the read chunk, the longest line and a share of usage, not grow with the file.
#   claude: a Claude Code transcript, one assistant line of ~2 kB per message, every message id
#           distinct.
#   codex:  a Codex rollout: a session header and a turn context, then per request a ~1.8 kB
#           reasoning line and a token report with the session's running totals (the reader
#           keeps model, directory and totals from line to line).
#
# usage: bench/huge_file.sh [--agent claude|codex] [--size-mb N] [--kestrel PATH]
# The log is written once to ${KESTREL_BENCH_DIR:-/tmp/kestrel-bench}/huge-AGENT and reused
# while its size stays the same. Default binary: build/release/cli/kestrel.
set -euo pipefail

agent=claude
size_mb=2048
kestrel=build/release/cli/kestrel
while [ $# -gt 0 ]; do
  case "$1" in
    --agent) agent=${2:?--agent needs claude or codex}; shift 2 ;;
    --size-mb) size_mb=${2:?--size-mb needs a number}; shift 2 ;;
    --kestrel) kestrel=${2:?--kestrel needs a path}; shift 2 ;;
    -h|--help) sed -n '2,12p' "$0" | sed 's/^# \{0,1\}//'; exit 0 ;;
    *) echo "huge_file.sh: unknown argument $1 (try --help)" >&2; exit 2 ;;
  esac
done
case "$size_mb" in ''|*[!0-9]*|0) echo "huge_file.sh: --size-mb needs a positive number" >&2; exit 2 ;; esac
case "$agent" in claude|codex) ;; *) echo "huge_file.sh: --agent is claude or codex" >&2; exit 2 ;; esac
[ -x "$kestrel" ] || { echo "huge_file.sh: no binary at $kestrel (make build, or --kestrel)" >&2; exit 1; }
[ -x /usr/bin/time ] || { echo "huge_file.sh: needs /usr/bin/time (apt-get install time)" >&2; exit 1; }

dir=${KESTREL_BENCH_DIR:-/tmp/kestrel-bench}/huge-$agent
if [ "$agent" = claude ]; then
  log=$dir/home/.claude/projects/-home-dev-huge/session.jsonl
else
  log=$dir/home/.codex/sessions/2026/03/01/rollout-2026-03-01T09-00-00-5f0c2a1e-7d3b-4c8e-9a61-2b4d6e8f0a13.jsonl
fi
stamp=$dir/size-mb
if [ ! -f "$log" ] || [ "$(cat "$stamp" 2>/dev/null)" != "$size_mb" ]; then
  rm -rf "$dir/home"
  mkdir -p "$(dirname "$log")"
  echo "huge_file.sh: writing a ${size_mb} MB $agent log to $log" >&2
  if [ "$agent" = claude ]; then
    # Each line: a text block of 1.8 kB (varying, so that it does not compress to nothing in
    # the page cache's favour) and a usage object.
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
    }' > "$log"
  else
    # Per request: a reasoning item of 1.8 kB and a token report whose running totals grow by
    # the request's own counts; every few requests a new turn context names another model.
    awk -v bytes=$((size_mb * 1024 * 1024)) 'BEGIN {
      pad = ""; for (i = 0; i < 180; i++) pad = pad "lorem ips ";
      line = "{\"timestamp\":\"2026-03-01T09:00:00.000Z\",\"type\":\"session_meta\",\"payload\":{\"id\":\"5f0c2a1e-7d3b-4c8e-9a61-2b4d6e8f0a13\",\"timestamp\":\"2026-03-01T09:00:00.000Z\",\"cwd\":\"/home/dev/huge\",\"originator\":\"codex_cli_rs\",\"cli_version\":\"0.50.0\"}}";
      print line; written = length(line) + 1;
      n = 0; inTok = 0; cached = 0; outTok = 0; reason = 0;
      while (written < bytes) {
        n++;
        ts = sprintf("2026-03-%02dT%02d:%02d:%02d.000Z", 1 + (n / 86400) % 28, (n / 3600) % 24, (n / 60) % 60, n % 60);
        if (n % 50 == 1) {
          line = sprintf("{\"timestamp\":\"%s\",\"type\":\"turn_context\",\"payload\":{\"cwd\":\"/home/dev/huge\",\"approval_policy\":\"on-request\",\"model\":\"%s\"}}", ts, (n / 50) % 2 ? "gpt-5-codex" : "gpt-5");
          print line; written += length(line) + 1;
        }
        line = sprintf("{\"timestamp\":\"%s\",\"type\":\"response_item\",\"payload\":{\"type\":\"reasoning\",\"summary\":[{\"type\":\"summary_text\",\"text\":\"%d %s\"}]}}", ts, n, pad);
        print line; written += length(line) + 1;
        i = 1000 + n % 900; c = n % 700; o = 10 + n % 300; r = n % 50;
        inTok += i; cached += c; outTok += o; reason += r;
        line = sprintf("{\"timestamp\":\"%s\",\"type\":\"event_msg\",\"payload\":{\"type\":\"token_count\",\"info\":{\"total_token_usage\":{\"input_tokens\":%d,\"cached_input_tokens\":%d,\"output_tokens\":%d,\"reasoning_output_tokens\":%d,\"total_tokens\":%d},\"last_token_usage\":{\"input_tokens\":%d,\"cached_input_tokens\":%d,\"output_tokens\":%d,\"reasoning_output_tokens\":%d,\"total_tokens\":%d},\"model_context_window\":272000},\"rate_limits\":{\"primary\":{\"used_percent\":%d.0,\"window_minutes\":300,\"resets_in_seconds\":3600}}}}", ts, inTok, cached, outTok, reason, inTok + outTok, i, c, o, r, i + o, n % 100);
        print line; written += length(line) + 1;
      }
    }' > "$log"
  fi
  echo "$size_mb" > "$stamp"
fi

rm -rf "$dir/support"
mkdir -p "$dir/support"
bytes=$(stat -c %s "$log")
lines=$(wc -l < "$log")
# Read once so that the timed scan finds the file in the page cache whatever ran before.
cat "$log" > /dev/null
/usr/bin/time -f '%e %M' -o "$dir/time.txt" \
  "$kestrel" scan --home "$dir/home" --support-dir "$dir/support" > "$dir/scan.out"
read -r seconds rss_kb < "$dir/time.txt"
printf 'huge_file (%s): %d bytes (%.2f GiB), %d lines: scan %s s, peak RSS %d MiB\n' \
  "$agent" "$bytes" "$(awk -v b="$bytes" 'BEGIN { print b / 1073741824 }')" "$lines" "$seconds" $((rss_kb / 1024))
