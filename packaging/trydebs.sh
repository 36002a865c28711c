#!/usr/bin/env bash
# Unpacks Debian packages into a scratch root and uses what is there, as far as that goes without
# installing: a daemon and a first message, and a program that is built with the library.
#
# trydebs.sh FOLDER-OF-PACKAGES
set -euo pipefail

packages=${1:?usage: trydebs.sh FOLDER-OF-PACKAGES}
consumer=$(dirname "$(readlink -f "$0")")/../tests/package/consumer
root=$(mktemp -d)
pids=() # the bus is the last, and the last to be ended

cleanup() {
    local status=$?
    trap - EXIT
    for pid in "${pids[@]}"; do
        kill "$pid" 2>/dev/null || true
        wait "$pid" || true
    done
    rm -rf "$root"
    exit "$status"
}
trap cleanup EXIT

for package in "$packages"/*.deb; do
    dpkg -x "$package" "$root"
done
libraries=$(dirname "$(find "$root" -name libtrelanclient.so.1)")
export LD_LIBRARY_PATH=$libraries PATH=$root/usr/bin:$PATH

fail() {
    echo "trydebs: $*" >&2
    exit 1
}

mkfifo "$root/started" "$root/watched"
trelanbusd --query-port 0 --msg-port 0 2>"$root/started" &
pids=("$!" "${pids[@]}")
exec 3<"$root/started"
IFS= read -r -t 30 line <&3
[[ $line =~ listens\ on\ [0-9.]+:([0-9]+)\ and\ [0-9.]+:([0-9]+) ]] || fail "the bus says: $line"
ports=(--query-port "${BASH_REMATCH[1]}" --msg-port "${BASH_REMATCH[2]}")
trelanctl "${ports[@]}" --json watch 'room.*' >"$root/watched" &
pids=("$!" "${pids[@]}")
exec 4<"$root/watched"
trelanctl "${ports[@]}" pub room.kitchen celsius=21.5
IFS= read -r -t 30 line <&4 || fail "nothing is delivered"
echo "$line"
[[ $line == *'"celsius":21.5'* ]] || fail "something else is delivered"

cmake -S "$consumer" -B "$root/consumer" -DCMAKE_PREFIX_PATH="$root/usr" >/dev/null
cmake --build "$root/consumer" >/dev/null
"$root/consumer/thermometer"
echo "The packages work, unpacked."
