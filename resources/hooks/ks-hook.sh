#!/bin/sh
# Kestrel's live hook. An agent runs it on its lifecycle events:
#
#   ks-hook.sh AGENT STATE [PID] [notice=WORD|hint=WORD]
#
# with KS_LIVE_DIR, KS_SESSION_SALT_FILE, KS_HOOK_GATE and optionally KS_CAPTURE_PROJECT=1 in
# the environment. While the gate file exists it writes one small JSON pulse file per session
# into the live folder. It must never disturb the agent: every failure ends in `exit 0`, it reads
# nothing from the network, and it only needs POSIX tools (dash and busybox sh run it).

hook_version=1

agent=$1
state=$2
[ -n "$agent" ] && [ -n "$state" ] || exit 0
[ -n "$KS_HOOK_GATE" ] && [ -e "$KS_HOOK_GATE" ] || exit 0
[ -n "$KS_LIVE_DIR" ] && [ -n "$KS_SESSION_SALT_FILE" ] && [ -r "$KS_SESSION_SALT_FILE" ] || exit 0

case $agent in *[!a-z0-9]*) exit 0 ;; esac
case $state in processing | idle | awaiting) ;; *) exit 0 ;; esac

pid=
notice=
hint=
shift 2
for arg in "$@"; do
    case $arg in
        notice=completed | notice=permission | notice=question | notice=failed) notice=${arg#notice=} ;;
        hint=*)
            case ${arg#hint=} in '' | *[!A-Za-z0-9_.-]*) ;; *) hint=${arg#hint=} ;; esac ;;
        '' | *[!0-9]*) ;;
        *) pid=$arg ;;
    esac
done

# Every process started here costs the agent time, so the work is done by builtins where it can
# be, and by a single awk for the payload: the session id and the working folder, still
# JSON-escaped (so that they can be copied into our own JSON as they are), separated by a tab
# (which a JSON string cannot hold raw). Only the first 64 KB count (tool results can be large);
# the rest is read too, so that the agent never writes into a closed pipe.
fields=
if [ ! -t 0 ]; then
    fields=$(awk '
        length(buf) < 65536 { buf = buf " " $0 }
        function str(key,   s) {
            if (!match(buf, "\"" key "\"[ \t]*:[ \t]*\"([^\"\\\\]|\\\\.)*\"")) return ""
            s = substr(buf, RSTART, RLENGTH)
            sub(/^"[^"]*"[ \t]*:[ \t]*"/, "", s)
            return substr(s, 1, length(s) - 1)
        }
        END {
            id = str("session_id"); if (id == "") id = str("conversation_id"); if (id == "") id = str("sessionId")
            cwd = str("cwd")
            # Cursor sends its folders as "workspace_roots": ["..."].
            if (cwd == "" && match(buf, "\"workspace_roots\"[ \t]*:[ \t]*\\[[ \t]*\"([^\"\\\\]|\\\\.)*\"")) {
                cwd = substr(buf, RSTART, RLENGTH); sub(/^[^[]*\[[ \t]*"/, "", cwd); cwd = substr(cwd, 1, length(cwd) - 1)
            }
            printf "%s\t%s", id, cwd
        }' 2>/dev/null)
fi
session=${fields%%"	"*}
cwd=${fields#*"	"}
[ "$cwd" != "$fields" ] || cwd=
# Without an id from the agent the process id tells concurrent sessions apart.
[ -n "$session" ] || session="pid-${pid:-$PPID}"
if [ -z "$cwd" ]; then
    case $PWD in
        *[\\\"]* | *[[:cntrl:]]*) cwd=$(printf '%s' "$PWD" | sed 's/\\/\\\\/g; s/"/\\"/g' | tr -d '\000-\037') ;;
        *) cwd=$PWD ;;
    esac
fi

# The raw session id never reaches disk: only its digest, keyed by the salt and the agent.
IFS= read -r salt <"$KS_SESSION_SALT_FILE" 2>/dev/null || exit 0
[ -n "$salt" ] || exit 0
if command -v sha256sum >/dev/null 2>&1; then
    key=$(printf '%s\n%s\n%s' "$salt" "$agent" "$session" | sha256sum)
elif command -v shasum >/dev/null 2>&1; then
    key=$(printf '%s\n%s\n%s' "$salt" "$agent" "$session" | shasum -a 256)
elif command -v openssl >/dev/null 2>&1; then
    key=$(printf '%s\n%s\n%s' "$salt" "$agent" "$session" | openssl dgst -sha256 -r)
else
    exit 0
fi
key=${key%%[!0-9a-f]*}
[ ${#key} -eq 64 ] || exit 0

[ -d "$KS_LIVE_DIR" ] || mkdir -p "$KS_LIVE_DIR" 2>/dev/null || exit 0
now=$(date +%s) || exit 0
file="$KS_LIVE_DIR/$agent-${key%????????????????????????????????}.json"

# A run of work starts with a prompt; other events keep the start the session already has.
started=
if [ "$hint" != prompt ] && [ -f "$file" ]; then
    IFS= read -r line <"$file" 2>/dev/null
    case $line in
        *'"started_at":'[0-9]*)
            started=${line#*\"started_at\":}
            started=${started%%[!0-9]*} ;;
    esac
fi
[ -n "$started" ] || started=$now

project=
if [ "$KS_CAPTURE_PROJECT" = 1 ]; then
    project=${cwd%/}
    project=${project##*/}
fi

tmp="$KS_LIVE_DIR/.$agent-$$.tmp"
{
    printf '{"format_version":1,"source":"%s","state":"%s","session_key":"%s"' "$agent" "$state" "$key"
    [ -n "$pid" ] && printf ',"pid":%s' "$pid"
    # The working folder names the project, so it is written only where project names may be.
    [ -n "$project" ] && printf ',"cwd":"%s"' "$cwd"
    printf ',"at":%s,"started_at":%s' "$now" "$started"
    printf ',"evidence":"hook","precision":"exact","hook_version":%s' "$hook_version"
    [ -n "$project" ] && printf ',"project":"%s"' "$project"
    [ -n "$notice" ] && printf ',"notice":"%s"' "$notice"
    [ -n "$hint" ] && printf ',"hint":"%s"' "$hint"
    printf '}\n'
} >"$tmp" 2>/dev/null && mv -f "$tmp" "$file" 2>/dev/null || rm -f "$tmp" 2>/dev/null

# Sessions end often enough that pruning there keeps the folder small without a scan per tool
# call: pulses untouched for a day, and temporary files a crash left behind.
if [ "$state" = idle ]; then
    find "$KS_LIVE_DIR" -type f \( -name '*.json' -o -name '.*.tmp' \) -mmin +1440 -exec rm -f {} + 2>/dev/null
fi
exit 0
