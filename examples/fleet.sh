#!/usr/bin/env bash
# fleet.sh BUILD DIRECTORY: three members of etcd, three hosts with agents, and a driver, all on this machine. A push
# in waves, a host that fails, the roll-back, and a host that a change cuts off from etcd. Each part is the real one.
set -euo pipefail
build=$(cd "$1" && pwd)
mkdir -p "$2" && cd "$2"
PATH=$build:$build/platform:$PATH
say() { printf '\n— %s\n' "$*"; }
trap 'kill $(jobs -p) 2>/dev/null; wait 2>/dev/null || true' EXIT
trap 'echo "The fleet FAILED at line $LINENO" >&2' ERR

say "A certificate authority, three members of etcd, users and roles"
vsfleet setup --directory authority --member a=127.78.0.1 --member b=127.78.0.2 --member c=127.78.0.3 >made
for member in a b c; do
    env $(sed "s|/etc/vswitchctl/etcd|$PWD/authority/members/$member|; s|/var/lib/etcd|$PWD|" \
        authority/members/$member/etcd) etcd >$member.log 2>&1 &
done
vsfleet setup --directory authority --roles

# web3 reaches etcd through a relay, which stands for the switch that is changed: the change to VLAN 300 ends it, with
# all its connections, and it is there again once port0 has left that VLAN.
cat >relay.py <<'END'
import asyncio


async def copy(reader, writer):
    while data := await reader.read(65536):
        writer.write(data)
    writer.close()


async def connect(reader, writer):
    there, back = await asyncio.open_connection("127.78.0.1", 2379)
    await asyncio.gather(copy(reader, back), copy(there, writer), return_exceptions=True)


async def main():
    server = await asyncio.start_server(connect, "127.0.0.1", 23779)
    await server.serve_forever()

asyncio.run(main())
END
on_host() { vshost run --state "$1/host" -- "${@:2}"; }
relay() {
    trap 'kill $(jobs -p) 2>/dev/null' EXIT
    while sleep 0.2; do
        if [ -z "$(jobs -pr)" ] && ! on_host web3 vsctl port vlan lab port0 --json 2>/dev/null | grep -q '"id":300'; then
            python3 relay.py 2>/dev/null &
            echo $! >relay.pid
        fi
    done
}

say "Three hosts and a driver"
for host in web1 web2 web3; do
    vsfleet enroll $host site=a --directory authority >>made
    config=authority/hosts/$host/fleet.toml
    [ $host != web3 ] || sed -i 's/^endpoints = .*/endpoints = ["127.0.0.1:23779"]/' $config
    printf 'state = "%s"\nlease = 5\nvsctl = "%s"\n' "$PWD/$host/fleet" "$PWD/$host/vsctl" >>$config
    mkdir -p $host
    # web2 has no luck with VLAN 200, and web3 is cut off by VLAN 300.
    cat >$host/vsctl <<END
#!/bin/sh
case "$host \$*" in
*--dry-run*) ;;
"web2 apply "*)
    if grep -q ':200' "\$2"; then
        echo 'vsctl: web2 has no luck today' >&2
        exit 1
    fi ;;
"web3 apply "*)
    if grep -q ':300' "\$2"; then
        $build/vsctl "\$@"
        code=\$?
        kill \$(cat $PWD/relay.pid)
        exit \$code
    fi ;;
esac
exec $build/vsctl "\$@"
END
    chmod +x $host/vsctl
    # Not by the function, whose own process a signal would end alone.
    vshost run --state $host/host -- vsfleet agent --config $config >$host.log 2>&1 &
done
relay >/dev/null 2>&1 &
echo 'lease = 5' >>authority/users/driver/fleet.toml
echo "state = \"$PWD/driver\"" >>authority/users/driver/fleet.toml
vsfleet drive --config authority/users/driver/fleet.toml >driver.log 2>&1 &
export VSFLEET_CONFIG=$PWD/authority/users/operator/fleet.toml
until [ "$(vsfleet hosts --json 2>/dev/null | grep -o '"state":"idle"' | wc -l)" = 3 ]; do sleep 0.2; done
vsfleet hosts

document() { printf '[switches.lab.ports."port0..port3"]\nvlan = { id = %s }\n' "$1" >lab.toml; }
say "A push in waves: first one host, then the others"
document 100
vsfleet push lab lab.toml --select site=a --canary 1 --soak 1s

say "What VLAN 200 would change"
document 200
vsfleet diff lab lab.toml || [ $? = 10 ]
say "web2 fails: the hosts that were changed go back"
! vsfleet push lab lab.toml --canary 1
vsfleet status lab

say "VLAN 300 cuts web3 off: it undoes the change by itself, and the others go back"
document 300
! vsfleet push lab lab.toml --deadline 10s
vsfleet status lab
for host in web1 web2 web3; do on_host $host vsctl port vlan lab port0 --json | grep '"id":100'; done

say "Who did what"
vsfleet history lab
