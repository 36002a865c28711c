#!/usr/bin/env bash
# Runs the examples as their readers do, each as a process, around one bus. The argument is the
# build folder. The script ends everything that it has started.
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

mkfifo "$work/bus"
"$build/trelan/trelanbusd/trelanbusd" --query-port 0 --msg-port 0 2>"$work/bus" &
pids+=($!)
exec 3<"$work/bus"
# The bus says when it listens: "... listens on 127.0.0.1:QUERY and 127.0.0.1:MSG".
IFS= read -r -t 20 line <&3 || fail "the bus does not start"
[[ $line =~ listens\ on\ [0-9.]+:([0-9]+)\ and\ [0-9.]+:([0-9]+) ]] || fail "the bus says: $line"
ports=(--query-port "${BASH_REMATCH[1]}" --msg-port "${BASH_REMATCH[2]}")
cat <&3 >"$work/bus.log" &
pids+=($!)

ctl=("$build/trelan/trelanctl/trelanctl" "${ports[@]}")

# run NAME ARGUMENTS...: starts an example in the background.
run() {
    local name=$1
    shift
    "$build/examples/$name/$name" "${ports[@]}" "$@" >"$work/$name.log" 2>&1 &
    pids+=($!)
}

# await FILE TEXT COMMAND...: runs the command again and again until the text is there.
await() {
    local file=$1 text=$2
    shift 2
    until grep -qsF -- "$text" "$work/$file.log"; do
        ((SECONDS < deadline)) || fail "no $text in $file.log"
        "$@" >>"$work/$file.log" 2>&1 || true
        sleep 0.1
    done
    echo "$file: $(grep -F -- "$text" "$work/$file.log" | head -n 1)"
}

"$build/examples/publish/publish" "${ports[@]}" || fail "publish ended with $?"
"${ctl[@]}" pub room.cellar celsius=12
run watch
await watch '"room.kitchen" QMap(("celsius", QVariant(double, 21.5)))' true
await watch '"room.cellar" QMap(("celsius", QVariant(qlonglong, 12)))' true

run controller
await call '{"room.cellar":12,"room.kitchen":21.5}' "${ctl[@]}" --json call thermostat rooms
"${ctl[@]}" logs >"$work/logs.log" 2>&1 &
pids+=($!)
await logs 'it is cold in "room.cellar"' true

run command
await command 'client "answerer" has the bus' true
answer=$("$build/examples/command/command" "${ports[@]}" answerer 2>&1) || fail "ping: $answer"
[[ $answer == *'QMap((hello, QVariant(QString, pinger)))'* ]] || fail "ping: $answer"
answer=$("$build/examples/command/command" "${ports[@]}" nobody 2>&1) && fail "ping nobody: $answer"
echo "command: $answer"

export QT_QPA_PLATFORM=offscreen
await table ' | 21.5' "$build/examples/table/table" "${ports[@]}" --once
await names '"room.cellar" QMap(("celsius", QVariant(qlonglong, 12)))' \
    "$build/examples/names/names" "${ports[@]}" --once

loaded=$("$build/examples/embed/embed" 2>&1) || fail "embed: $loaded"
[[ $loaded == *'"room.kitchen" QMap(("celsius", QVariant(double, 21.5))) from "thermometer"'* ]] ||
    fail "embed: $loaded"
