#!/usr/bin/env bash
# Installs Debian packages with apt in a scratch root that holds only apt and systemd, checks the
# units there, starts the daemon, and purges it again. Runs as root.
#
# installdebs.sh FOLDER-OF-PACKAGES
set -euo pipefail

fail() {
    echo "installdebs: $*" >&2
    exit 1
}

# The lists that this machine has of Debian's own archive, from the mirror that it uses.
debian_sources() {
    local key=/usr/share/keyrings/debian-archive-keyring.gpg
    # shellcheck disable=SC2016 # apt fills in the names
    apt-get indextargets --format "deb [signed-by=$key] "'$(REPO_URI) $(RELEASE) $(COMPONENT)' \
        'Created-By: Packages' 'Origin: Debian' | sort -u
}

# The hooks run in the order given; with the format "null" mmdebstrap removes the root at the end.
make_root() {
    local packages=$1 self=$2 sources options
    sources=$(debian_sources)
    [[ -n $sources ]] || fail "apt knows no source of Debian"
    options=$(apt-config dump Acquire::http::Proxy)
    mmdebstrap --quiet --variant=apt --include=systemd --dpkgopt=force-unsafe-io ${options:+--aptopt="$options"} \
        --customize-hook="mkdir \"\$1/packages\" && cp \"$packages\"/*.deb \"\$1/packages\"" \
        --customize-hook="\"$self\" --inside \"\$1\"" \
        '' /dev/null - <<<"$sources"
}

# Each of the programs executes the next, so that a background process is the last one itself.
enter=(env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin LC_ALL=C.UTF-8 HOME=/root XDG_RUNTIME_DIR=/run
    DEBIAN_FRONTEND=noninteractive)

inside() {
    chroot "$root" "${enter[@]}" "$@"
}

# What apt says is of interest only when it fails.
apt() {
    inside apt-get -y --no-install-recommends "$@" >"$root/apt.log" 2>&1 || {
        cat "$root/apt.log" >&2
        fail "apt-get $1 failed"
    }
}

# What the client in Python publishes comes back. Its input is the file of ports.
ROUND_TRIP='
import asyncio, sys, trelan

async def main():
    ports = dict(line.strip().split("=") for line in sys.stdin)
    async with trelan.connect(query_port=int(ports["query"]), message_port=int(ports["msg"])) as bus:
        await bus.publish("room.cellar", {"celsius": 12}, permanent=True)
        watch = bus.watch("room.*")
        assert (await watch.__anext__()).content == {"celsius": 12}
        await bus.rm("room.cellar")
        assert (await watch.__anext__()).removed

asyncio.run(asyncio.wait_for(main(), 30))
'

verify_units() {
    local scope=$1 folder=$2
    # The pages are not looked for, since the program man is not installed.
    inside systemd-analyze "--$scope" verify --man=no \
        "$folder/trelanbusd.service" "$folder/trelanbusd.socket" || fail "the $scope units are wrong"
    echo "The $scope units are valid."
}

# Starts the daemon on the folder that the unit gives it, and leaves a permanent object there.
use_daemon() {
    local data=/var/lib/private/trelanbusd ports="$root/ports" pid tries=0 at
    mkdir -p "$root$data"
    ln -s private/trelanbusd "$root/var/lib/trelanbusd"
    chroot "$root" "${enter[@]}" trelanbusd --query-port 0 --msg-port 0 --port-file /ports --data "$data" &
    pid=$!
    until [[ -s $ports ]]; do
        if ((tries++ > 300)) || ! kill -0 "$pid"; then
            fail "the daemon does not start"
        fi
        sleep 0.1
    done
    at=(--query-port "$(sed -n 's/^query=//p' "$ports")")
    inside python3 -c "$ROUND_TRIP" <"$ports" || fail "the client in Python ends with $?"
    inside trelanctl "${at[@]}" pub room.kitchen celsius=21.5 --permanent || fail "nothing is published"
    kill "$pid"
    wait "$pid" || fail "the daemon ended with $?"
    [[ -n $(ls -A "$root$data") ]] || fail "the daemon keeps nothing"
}

# Files of the daemon that are neither apt's nor dpkg's own.
daemon_files() {
    (cd "$root" && find etc lib usr var -name '*trelanbusd*' \
        -not -path 'var/lib/dpkg/*' -not -path 'var/cache/*' -not -path 'var/log/*')
}

try_root() {
    local left files
    files=("$root"/packages/*.deb)
    apt install "${files[@]#"$root"}"
    [[ -f $root/etc/default/trelanbusd ]] || fail "/etc/default/trelanbusd is missing"
    [[ -f $root/usr/share/qt5/doc/trelan.qch ]] || fail "the documentation is missing"
    verify_units system /lib/systemd/system
    verify_units user /usr/lib/systemd/user
    [[ $(inside systemctl --root=/ is-enabled trelanbusd.socket) == enabled ]] ||
        fail "the socket of the system is not enabled"
    [[ -z $(find "$root/etc/systemd/user" -name 'trelanbusd*') ]] ||
        fail "a user unit is enabled, on the ports of the system unit"
    use_daemon
    apt remove trelanbusd
    [[ -d $root/var/lib/private/trelanbusd ]] || fail "removing the package has removed the data"
    apt purge trelanbusd
    left=$(daemon_files)
    [[ -z $left ]] || fail "purging the package leaves $left"
    echo "The packages install, run and purge with apt."
}

if [[ ${1:-} == --inside ]]; then
    root=${2:?}
    try_root
else
    make_root "$(readlink -f "${1:?usage: installdebs.sh FOLDER-OF-PACKAGES}")" "$(readlink -f "$0")"
fi
