#!/usr/bin/env bash
# Unpacks Debian packages into a scratch root and uses what is there, as far as that goes without
# installing: a daemon and a first message, and a program that is built with the library.
#
# trydebs.sh FOLDER-OF-PACKAGES
set -euo pipefail

packages=${1:?usage: trydebs.sh FOLDER-OF-PACKAGES}
consumer=$(dirname "$(readlink -f "$0")")/../tests/package/consumer
root=$(mktemp -d)
bus_pid=''

cleanup() {
    local status=$?
    trap - EXIT
    if [[ -n $bus_pid ]]; then
        kill "$bus_pid" 2>/dev/null || true
        wait "$bus_pid" || true
    fi
    rm -rf "$root"
    exit "$status"
}
trap cleanup EXIT

for package in "$packages"/*.deb; do
    [[ $package == *-dbgsym_* ]] || dpkg -x "$package" "$root"
done
libraries=$(dirname "$(find "$root" -name libtrelanclient.so.1)")
export LD_LIBRARY_PATH=$libraries PATH=$root/usr/bin:$PATH

mkfifo "$root/started"
trelanbusd --query-port 0 --msg-port 0 --data "$root/data" 2>"$root/started" &
bus_pid=$!
exec 3<"$root/started"
IFS= read -r -t 30 line <&3
[[ $line =~ listens\ on\ [0-9.]+:([0-9]+) ]] || { echo "trydebs: the bus says: $line" >&2; exit 1; }
trelanctl --query-port "${BASH_REMATCH[1]}" pub room.kitchen celsius=21.5
message=$(trelanctl --query-port "${BASH_REMATCH[1]}" --json get room.kitchen)
echo "$message"
[[ $message == *'"celsius":21.5'* ]]

cmake -S "$consumer" -B "$root/consumer" -DCMAKE_PREFIX_PATH="$root/usr" >/dev/null
cmake --build "$root/consumer" >/dev/null
"$root/consumer/thermometer"
echo "The packages work, unpacked."
