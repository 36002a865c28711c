#!/usr/bin/env bash
# The examples as their readers run them: a bus, a program that watches and one that answers, each a
# process of its own. Called with the build folder; everything that is started here is ended here.
set -euo pipefail

build=${1:?usage: examples.sh BUILD-FOLDER}
deadline=$((SECONDS + 40))
work=$(mktemp -d)
pids=()

cleanup() {
    local status=$?
    trap - EXIT
    for pid in "${pids[@]}"; do
        kill "$pid" 2>/dev/null || true
        wait "$pid" 2>/dev/null || true
    done
    ((status == 0)) || cat "$work"/*.log >&2
    rm -rf "$work"
    exit "$status"
}
trap cleanup EXIT

fail() {
    echo "examples: $*" >&2
    exit 1
}

mkfifo "$work/bus" "$work/watched"
"$build/trelan/trelanbusd/trelanbusd" --query-port 0 --msg-port 0 2>"$work/bus" &
pids+=($!)
exec 3<"$work/bus"
# It says so once it listens: "... listens on 127.0.0.1:QUERY and 127.0.0.1:MSG".
IFS= read -r -t 20 line <&3 || fail "the bus does not start"
[[ $line =~ listens\ on\ [0-9.]+:([0-9]+)\ and\ [0-9.]+:([0-9]+) ]] || fail "the bus says: $line"
ports=(--query-port "${BASH_REMATCH[1]}" --msg-port "${BASH_REMATCH[2]}")
cat <&3 >"$work/bus.log" &
pids+=($!)

"$build/examples/watch/watch" "${ports[@]}" 'room.*' >"$work/watched" 2>"$work/watch.log" &
pids+=($!)
exec 4<"$work/watched"
"$build/examples/command/command" "${ports[@]}" --name answerer 2>"$work/answer.log" &
pids+=($!)

# Published until it is seen: when the watcher has subscribed is its own affair.
line=''
for ((number = 1; SECONDS < deadline; ++number)); do
    "$build/trelan/trelanctl/trelanctl" "${ports[@]:0:2}" pub room.kitchen "celsius=$number" >/dev/null
    if IFS= read -r -t 1 line <&4; then break; fi
done
[[ $line =~ ^room\.kitchen\ \{\"celsius\":[0-9]+\}\ from\ .+$ ]] || fail "watched: \"$line\""

answer=$("$build/examples/command/command" "${ports[@]}" answerer 2>&1) || fail "ping: \"$answer\""
[[ $answer == *'"ping" answered by "answerer"'* ]] || fail "ping: \"$answer\""
echo "$line"
echo "$answer"
