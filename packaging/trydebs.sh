#!/usr/bin/env bash
# Unpacks Debian packages into a scratch root and uses what is there, as far as that goes without
# installing them: the daemon and the tool, a program that is built with the library, and the examples.
#
# trydebs.sh FOLDER-OF-PACKAGES
set -euo pipefail

packages=${1:?usage: trydebs.sh FOLDER-OF-PACKAGES}
consumer=$(dirname "$(readlink -f "$0")")/../tests/package/consumer
root=$(mktemp -d)
pids=() # ended from first to last, so that the bus stands last

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

# The client in Python publishes what the tool watches.
PYTHONPATH=$root/usr/lib/python3/dist-packages /usr/bin/python3 - "${ports[1]}" "${ports[3]}" <<'END' ||
import asyncio, sys, trelan

async def main():
    ports = {"query_port": int(sys.argv[1]), "message_port": int(sys.argv[2])}
    async with trelan.connect(**ports) as bus:
        await bus.publish("room.cellar", {"celsius": 12})

asyncio.run(main())
END
    fail "the client in Python ends with $?"
IFS= read -r -t 30 line <&4 || fail "nothing is delivered from Python"
[[ $line == *'"celsius":12'* ]] || fail "something else is delivered from Python: $line"

# build FOLDER NAME: builds a project with the unpacked libraries.
build() {
    cmake -S "$1" -B "$root/$2" -DCMAKE_PREFIX_PATH="$root/usr" >/dev/null
    cmake --build "$root/$2" >"$root/$2.log" || {
        cat "$root/$2.log" >&2
        fail "$2 is not built"
    }
}

build "$consumer" consumer
"$root/consumer/thermometer"
"$root/consumer/columns"

build "$root/usr/share/doc/libtrelanclient-dev/examples" examples
"$root/examples/publish/publish" "${ports[@]}" || fail "the example publish ends with $?"
"$root/examples/embed/embed" || fail "the example embed ends with $?"
QT_QPA_PLATFORM=offscreen "$root/examples/table/table" "${ports[@]}" --once ||
    fail "the example table ends with $?"
[[ -x $root/examples/hoststate/hoststate ]] || fail "the example hoststate is not built"
echo "The packages work, unpacked."
