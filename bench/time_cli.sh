#!/usr/bin/env bash
# Times the command line over a synthetic home of about 1 GB (Claude Code and Codex records):
#   (a) `kestrel scan` into a fresh, empty ledger: wall time, CPU time (user + system; on a busy
#       machine the steadier figure) and peak RSS;
#   (b) a second scan of the same home with nothing changed;
#   (c) `kestrel watch`: from appending one assistant line to a transcript until the watcher
#       prints its "+1 event" line; then SIGINT must end it with status 0 within 5 s.
# Each is run N times; the table shows the median, min and max. "Cold" means an empty ledger,
# not an empty page cache: the corpus is read once beforehand so that every run finds it cached.
#
# usage: bench/time_cli.sh [--runs N] [--size 1G] [--json] [--kestrel PATH] [--against PATH]
#                          [--no-watch]
# The home is written once to ${KESTREL_BENCH_DIR:-/tmp/kestrel-bench}/home and reused while its
# size and seed stay the same. --kestrel times another build of the command (a copy of an older
# one, to compare in one sitting); the release build is timed otherwise, and built first only
# then. --against times a second binary in the same runs, alternating with the first (which one
# goes first swaps every run), and adds its medians and the ratios; (c) is not run for it.
set -euo pipefail

runs=5
size=1G
seed=1
json=0
kestrel_arg=""
against_arg=""
watch=1
while [ $# -gt 0 ]; do
  case "$1" in
    --runs) runs=${2:?--runs needs a number}; shift 2 ;;
    --size) size=${2:?--size needs a size such as 1G}; shift 2 ;;
    --json) json=1; shift ;;
    --kestrel) kestrel_arg=${2:?--kestrel needs a path}; shift 2 ;;
    --against) against_arg=${2:?--against needs a path}; shift 2 ;;
    --no-watch) watch=0; shift ;;
    -h|--help) sed -n '2,16p' "$0" | sed 's/^# \{0,1\}//'; exit 0 ;;
    *) echo "time_cli.sh: unknown argument $1 (try --help)" >&2; exit 2 ;;
  esac
done
case "$runs" in ''|*[!0-9]*|0) echo "time_cli.sh: --runs needs a positive number" >&2; exit 2 ;; esac

if [ ! -x /usr/bin/time ]; then
  echo "time_cli.sh: /usr/bin/time (GNU time) is missing; install the Debian package \`time\`" \
       "(sudo apt-get install time)" >&2
  exit 2
fi

repo=$(cd "$(dirname "$0")/.." && pwd)
bench_dir=${KESTREL_BENCH_DIR:-/tmp/kestrel-bench}
home=$bench_dir/home
support=$bench_dir/support
kestrel=$repo/build/release/cli/kestrel
gen=$repo/build/release/tools/kestrel-gen-home
absolute() { echo "$(cd "$(dirname "$1")" && pwd)/$(basename "$1")"; }
if [ -n "$kestrel_arg" ]; then kestrel=$(absolute "$kestrel_arg"); fi
against=""
if [ -n "$against_arg" ]; then against=$(absolute "$against_arg"); fi

say() { echo "time_cli: $*" >&2; }  # progress goes to stderr, so that --json output stays clean

# --- build --------------------------------------------------------------------------------------
mkdir -p "$bench_dir"
wanted="size=$size seed=$seed"
have_corpus=0
if [ -f "$bench_dir/corpus.json" ] && [ "$(cat "$bench_dir/corpus.args" 2>/dev/null)" = "$wanted" ]
then
  have_corpus=1
fi
targets=()
if [ -z "$kestrel_arg" ]; then targets+=(kestrel); fi
if [ "$have_corpus" -eq 0 ]; then targets+=(kestrel-gen-home); fi
if [ "${#targets[@]}" -gt 0 ]; then
  say "building ${targets[*]} (release)"
  (cd "$repo" && cmake --preset release >/dev/null &&
     cmake --build --preset release --target "${targets[@]}") >&2
fi
for binary in "$kestrel" ${against:+"$against"}; do
  if [ ! -x "$binary" ]; then echo "time_cli.sh: $binary is not an executable" >&2; exit 2; fi
done

# --- corpus -------------------------------------------------------------------------------------
if [ "$have_corpus" -eq 1 ]; then
  say "reusing the home in $home"
else
  say "writing a $size home to $home"
  rm -f "$bench_dir/corpus.json" "$bench_dir/corpus.args"
  "$gen" --out "$home" --size "$size" --seed "$seed" --overwrite --json >"$bench_dir/corpus.json.new"
  mv "$bench_dir/corpus.json.new" "$bench_dir/corpus.json"
  echo "$wanted" >"$bench_dir/corpus.args"
fi
corpus_bytes=$(awk '/^  "bytes"/ { gsub(/[^0-9]/, ""); print; exit }' "$bench_dir/corpus.json")
expected_codex=$(awk '/"codex"/ { c = 1 } c && /"expectedEvents"/ { gsub(/[^0-9]/, ""); print; exit }' \
  "$bench_dir/corpus.json")
find "$home" -type f -exec cat {} + >/dev/null  # into the page cache, for every run alike

# The agents' own variables would point the readers elsewhere; only the synthetic home counts.
# (A prefix rather than a function: `env` execs kestrel, so $! and the timings are kestrel's.)
clean_env=(env -i PATH="$PATH" HOME="$home" LANG="${LANG:-C.UTF-8}")
if [ -n "${TZ:-}" ]; then clean_env+=(TZ="$TZ"); fi

# median, min and max of the numbers on stdin
stats() { sort -g | awk '{ v[NR] = $1 } END {
  m = NR % 2 ? v[(NR + 1) / 2] : (v[NR / 2] + v[NR / 2 + 1]) / 2; print m, v[1], v[NR] }'; }

# --- (a) and (b) -------------------------------------------------------------------------------
cold_s=() cold_kb=() cold_cpu=() warm_s=() warm_kb=()
other_cold_s=() other_cold_kb=() other_cold_cpu=() other_warm_s=() other_warm_kb=()
codex_found=""
# One cold and one unchanged scan of binary $1 into a fresh support directory; the figures go to
# the arrays named with prefix $2 ("" or "other_").
scan_pair() {
  local binary=$1 prefix=$2 label=$3 phase seconds kb user sys cpu
  rm -rf "$support"
  mkdir -p "$support"
  for phase in cold warm; do
    if ! /usr/bin/time -f '%e %M %U %S' -o "$bench_dir/time.txt" \
         "${clean_env[@]}" "$binary" scan --json --yes --home "$home" --support-dir "$support" \
         >"$bench_dir/scan.json" 2>"$bench_dir/scan.err"; then
      say "kestrel scan failed ($label, $phase):"
      cat "$bench_dir/scan.err" >&2
      exit 1
    fi
    read -r seconds kb user sys <"$bench_dir/time.txt"
    cpu=$(awk -v u="$user" -v s="$sys" 'BEGIN { printf "%.2f", u + s }')
    say "$label: $phase scan ${seconds} s (CPU ${cpu} s), peak RSS ${kb} KB"
    if [ "$phase" = cold ]; then
      eval "${prefix}cold_s+=(\"\$seconds\") ${prefix}cold_kb+=(\"\$kb\") ${prefix}cold_cpu+=(\"\$cpu\")"
      if [ -z "$prefix" ] && [ -z "$codex_found" ]; then
        codex_found=$(awk '/"source": "codex"/ { c = 1 } c && /"events"/ { gsub(/[^0-9]/, ""); print; exit }' \
          "$bench_dir/scan.json")
      fi
    else
      eval "${prefix}warm_s+=(\"\$seconds\") ${prefix}warm_kb+=(\"\$kb\")"
    fi
  done
}
for ((i = 1; i <= runs; i++)); do
  if [ -n "$against" ] && [ $((i % 2)) -eq 0 ]; then
    scan_pair "$against" other_ "run $i, against"
    scan_pair "$kestrel" "" "run $i"
  else
    scan_pair "$kestrel" "" "run $i"
    if [ -n "$against" ]; then scan_pair "$against" other_ "run $i, against"; fi
  fi
done

# --- (c) ----------------------------------------------------------------------------------------
# The line goes to an existing transcript, whose size is restored when the script ends.
transcript=$(find "$home/.claude/projects" -name '*.jsonl' -not -path '*/subagents/*' |
  LC_ALL=C sort | head -n 1)
original_size=$(stat -c %s "$transcript")
session_id=$(basename "$transcript" .jsonl)
cwd=$(head -c 65536 "$transcript" | grep -o '"cwd":"[^"]*"' | head -n 1 | cut -d'"' -f4)
watch_pid=""
cleanup() {
  if [ -n "$watch_pid" ]; then kill -KILL "$watch_pid" 2>/dev/null || true; fi
  truncate -s "$original_size" "$transcript"
}
trap cleanup EXIT

# Exit status of the process `pid`, waiting at most `limit` seconds; 124 when it outlived them.
wait_exit() {
  local pid=$1 limit=$2 waited=0 state
  while :; do
    state=$(awk '{ print $3 }' "/proc/$pid/stat" 2>/dev/null || echo gone)
    if [ "$state" = Z ] || [ "$state" = gone ]; then break; fi
    if [ "$waited" -ge $((limit * 100)) ]; then return 124; fi
    sleep 0.01
    waited=$((waited + 1))
  done
  local rc=0
  wait "$pid" || rc=$?
  return "$rc"
}

latency_ms=()
watch_failures=0
out=$bench_dir/watch.out
for ((i = 1; watch && i <= runs; i++)); do
  : >"$out"
  "${clean_env[@]}" "$kestrel" watch --home "$home" --support-dir "$support" >"$out" 2>"$bench_dir/watch.err" &
  watch_pid=$!
  ready=0
  for ((t = 0; t < 60000; t++)); do  # the first scan may take a while: up to 10 minutes
    if grep -q '^Watching' "$out"; then ready=1; break; fi
    if ! kill -0 "$watch_pid" 2>/dev/null; then break; fi
    sleep 0.01
  done
  if [ "$ready" -ne 1 ]; then
    say "kestrel watch did not start (run $i):"
    cat "$bench_dir/watch.err" >&2
    exit 1
  fi
  before=$(wc -l <"$out")

  stamp=$(date -u +%Y-%m-%dT%H:%M:%S.%3NZ)
  unique=$(date +%s%N)
  line='{"parentUuid":null,"isSidechain":false,"userType":"external","cwd":"'$cwd'","sessionId":"'$session_id'","version":"2.0.55","gitBranch":"main","message":{"model":"claude-sonnet-4-5-20250929","id":"msg_01bench'$unique'","type":"message","role":"assistant","content":[{"type":"text","text":"Done."}],"stop_reason":"end_turn","stop_sequence":null,"usage":{"input_tokens":12,"cache_creation_input_tokens":320,"cache_read_input_tokens":21000,"output_tokens":180,"service_tier":"standard"}},"requestId":"req_011Cbench'$unique'","type":"assistant","uuid":"'$(cat /proc/sys/kernel/random/uuid)'","timestamp":"'$stamp'"}'
  t0=$(date +%s%N)
  printf '%s\n' "$line" >>"$transcript"
  seen=0
  for ((t = 0; t < 3000; t++)); do  # 30 s
    if tail -n "+$((before + 1))" "$out" | grep -q -- '+1 event'; then seen=1; break; fi
    sleep 0.01
  done
  t1=$(date +%s%N)
  if [ "$seen" -eq 1 ]; then
    latency_ms+=("$(( (t1 - t0) / 1000000 ))")
    say "run $i: watch latency $(( (t1 - t0) / 1000000 )) ms"
  else
    say "run $i: no \"+1 event\" line within 30 s; the watcher printed:"
    cat "$out" "$bench_dir/watch.err" >&2
    watch_failures=$((watch_failures + 1))
  fi

  kill -INT "$watch_pid"
  rc=0
  wait_exit "$watch_pid" 5 || rc=$?
  if [ "$rc" -eq 124 ]; then
    say "run $i: kestrel watch was still running 5 s after SIGINT"
    kill -KILL "$watch_pid" 2>/dev/null || true
    wait "$watch_pid" 2>/dev/null || true
    watch_failures=$((watch_failures + 1))
  elif [ "$rc" -ne 0 ]; then
    say "run $i: kestrel watch exited with status $rc after SIGINT"
    watch_failures=$((watch_failures + 1))
  fi
  watch_pid=""
  truncate -s "$original_size" "$transcript"
done

# --- report -------------------------------------------------------------------------------------
read -r cs_med cs_min cs_max < <(printf '%s\n' "${cold_s[@]}" | stats)
read -r ck_med ck_min ck_max < <(printf '%s\n' "${cold_kb[@]}" | stats)
read -r cc_med cc_min cc_max < <(printf '%s\n' "${cold_cpu[@]}" | stats)
read -r ws_med ws_min ws_max < <(printf '%s\n' "${warm_s[@]}" | stats)
read -r wk_med wk_min wk_max < <(printf '%s\n' "${warm_kb[@]}" | stats)
if [ "${#latency_ms[@]}" -gt 0 ]; then
  read -r lat_med lat_min lat_max < <(printf '%s\n' "${latency_ms[@]}" | stats)
else
  lat_med=null lat_min=null lat_max=null
fi
# The second binary's medians and the ratios (its figure over ours: above 1, ours is faster).
if [ -n "$against" ]; then
  read -r os_med _ _ < <(printf '%s\n' "${other_cold_s[@]}" | stats)
  read -r oc_med _ _ < <(printf '%s\n' "${other_cold_cpu[@]}" | stats)
  read -r ok_med _ _ < <(printf '%s\n' "${other_cold_kb[@]}" | stats)
  read -r ow_med _ _ < <(printf '%s\n' "${other_warm_s[@]}" | stats)
  ratio() { awk -v a="$1" -v b="$2" 'BEGIN { if (b > 0) printf "%.2f", a / b; else print "null" }'; }
fi
codex_ok=true
if [ -n "$expected_codex" ] && [ "$codex_found" != "$expected_codex" ]; then codex_ok=false; fi

if [ "$json" -eq 1 ]; then
  cat <<EOF
{
  "runs": $runs,
  "home": "$home",
  "corpusBytes": ${corpus_bytes:-null},
  "cpus": $(nproc),
  "coldScan": {"seconds": {"median": $cs_med, "min": $cs_min, "max": $cs_max},
               "cpuSeconds": {"median": $cc_med, "min": $cc_min, "max": $cc_max},
               "peakRssKB": {"median": $ck_med, "min": $ck_min, "max": $ck_max}},
  "unchangedScan": {"seconds": {"median": $ws_med, "min": $ws_min, "max": $ws_max},
                    "peakRssKB": {"median": $wk_med, "min": $wk_min, "max": $wk_max}},
  "watchLatencyMs": {"median": $lat_med, "min": $lat_min, "max": $lat_max},
  "watchFailures": $watch_failures,
  "against": $(if [ -n "$against" ]; then
    echo "{\"binary\": \"$against\", \"coldSeconds\": $os_med, \"coldCpuSeconds\": $oc_med," \
         "\"coldPeakRssKB\": $ok_med, \"unchangedSeconds\": $ow_med," \
         "\"coldRatio\": $(ratio "$os_med" "$cs_med"), \"cpuRatio\": $(ratio "$oc_med" "$cc_med")}"
  else echo null; fi),
  "codexEvents": {"found": ${codex_found:-null}, "expected": ${expected_codex:-null}, "ok": $codex_ok}
}
EOF
else
  mb() { awk -v k="$1" 'BEGIN { printf "%.1f", k / 1024 }'; }
  echo "home: $home, $(awk -v b="${corpus_bytes:-0}" 'BEGIN { printf "%.0f", b / 1e6 }') MB;" \
       "$runs runs; $(nproc) CPUs"
  printf '%-26s %10s %10s %10s\n' "" median min max
  printf '%-26s %10s %10s %10s\n' "cold scan (s)" "$cs_med" "$cs_min" "$cs_max"
  printf '%-26s %10s %10s %10s\n' "cold scan CPU (s)" "$cc_med" "$cc_min" "$cc_max"
  printf '%-26s %10s %10s %10s\n' "cold scan peak RSS (MB)" "$(mb "$ck_med")" "$(mb "$ck_min")" "$(mb "$ck_max")"
  printf '%-26s %10s %10s %10s\n' "unchanged scan (s)" "$ws_med" "$ws_min" "$ws_max"
  printf '%-26s %10s %10s %10s\n' "unchanged peak RSS (MB)" "$(mb "$wk_med")" "$(mb "$wk_min")" "$(mb "$wk_max")"
  printf '%-26s %10s %10s %10s\n' "watch latency (ms)" "$lat_med" "$lat_min" "$lat_max"
  if [ -n "$against" ]; then
    echo "against $against (medians; ratio = its figure / ours):"
    printf '%-26s %10s %10s %10s\n' "" ours against ratio
    printf '%-26s %10s %10s %10s\n' "cold scan (s)" "$cs_med" "$os_med" "$(ratio "$os_med" "$cs_med")"
    printf '%-26s %10s %10s %10s\n' "cold scan CPU (s)" "$cc_med" "$oc_med" "$(ratio "$oc_med" "$cc_med")"
    printf '%-26s %10s %10s %10s\n' "cold scan peak RSS (MB)" "$(mb "$ck_med")" "$(mb "$ok_med")" \
      "$(ratio "$ok_med" "$ck_med")"
    printf '%-26s %10s %10s %10s\n' "unchanged scan (s)" "$ws_med" "$ow_med" "$(ratio "$ow_med" "$ws_med")"
  fi
  echo "Codex events: ${codex_found:-?} found, ${expected_codex:-?} in the corpus"
  if [ "$watch_failures" -gt 0 ]; then echo "watch: $watch_failures failed run(s), see above"; fi
fi

if [ "$codex_ok" != true ]; then
  say "the first scan found ${codex_found:-no} Codex events; the corpus holds $expected_codex"
  exit 1
fi
if [ "$watch_failures" -gt 0 ]; then exit 1; fi
