#!/bin/sh
# Times one run of resources/hooks/ks-hook.sh the way an agent calls it: a Claude Code-shaped
# payload of about 2 KB on stdin, the gate open, a live folder of 200 pulse files. Prints the
# median, min and max wall time over N runs per shell (sh, dash and busybox sh when present),
# for a tool-use event (no pruning) and for a session end (with the pruning pass).
#
# usage: bench/hook_script.sh [--runs N]
set -eu

runs=101
while [ $# -gt 0 ]; do
    case "$1" in
        --runs) runs=${2:?--runs needs a number}; shift 2 ;;
        -h | --help) sed -n '2,7p' "$0" | sed 's/^# \{0,1\}//'; exit 0 ;;
        *) echo "hook_script.sh: unknown argument $1 (try --help)" >&2; exit 2 ;;
    esac
done
case "$runs" in '' | *[!0-9]* | 0) echo "hook_script.sh: --runs needs a positive number" >&2; exit 2 ;; esac

root=$(cd "$(dirname "$0")/.." && pwd)
script="$root/resources/hooks/ks-hook.sh"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT INT TERM

mkdir -p "$work/live" "$work/enabled"
printf 'bench-salt\n' >"$work/salt"
: >"$work/enabled/claude"
i=0
while [ $i -lt 200 ]; do
    printf '{"source":"codex","state":"idle","at":1}\n' >"$work/live/codex-$i.json"
    i=$((i + 1))
done
filler=$(head -c 1500 /dev/zero | tr '\0' 'x')
printf '{"session_id":"0f6e1a52-bench","transcript_path":"/home/u/.claude/projects/p/0f6e1a52.jsonl","cwd":"/home/u/src/project","hook_event_name":"PreToolUse","tool_name":"Bash","tool_input":{"command":"%s"}}' "$filler" >"$work/payload.json"

export KS_LIVE_DIR="$work/live" KS_SESSION_SALT_FILE="$work/salt" KS_HOOK_GATE="$work/enabled/claude"

# Milliseconds since the epoch with a fractional part (GNU date; busybox date lacks %N).
now_ms() { date +%s%N | awk '{ printf "%.3f", $1 / 1000000 }'; }

# The median, min and max of the numbers on stdin.
summary() {
    sort -n | awk '{ v[NR] = $1 } END { printf "median %.2f ms  min %.2f ms  max %.2f ms  (%d runs)\n", v[int((NR + 1) / 2)], v[1], v[NR], NR }'
}

measure() { # shell, state, extra
    n=0
    while [ $n -lt "$runs" ]; do
        start=$(now_ms)
        $1 "$script" claude "$2" $3 <"$work/payload.json"
        end=$(now_ms)
        echo "$end $start" | awk '{ print $1 - $2 }'
        n=$((n + 1))
    done | summary
}

for shell in sh dash "busybox sh"; do
    command -v "${shell%% *}" >/dev/null 2>&1 || continue
    printf '%-11s tool use:    ' "$shell"
    measure "$shell" processing ""
    printf '%-11s session end: ' "$shell"
    measure "$shell" idle notice=completed
done
