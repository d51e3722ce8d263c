#!/bin/sh
# The OpenWrt package: the recipe read by GNU make against stand-ins of the build system, and the
# init script run by busybox sh inside a sandbox gateway, where stand-ins for rc.common and procd
# start one pkgd per configuration section and stop them again.
# usage: package_test.sh LAUNCHER PKGD UBUS SCRATCH
set -eu
launcher=$1 pkgd=$2 ubus=$3 scratch=$4
here=$(cd "$(dirname "$0")" && pwd)
recipe=$here/../pkgd
fail() { echo "FAIL: $*" >&2; exit 1; }

# The recipe: its sources found from the feed's directory, and only pkgd built and installed.
out=$scratch/recipe
rm -rf "$out"
make -s -C "$recipe" TOPDIR="$here/mk" INCLUDE_DIR="$here/mk" BUILD_DIR="$out" prepare
[ -f "$out"/pkgd-*/daemon/main.cpp ] || fail "the recipe's sources were not copied"
steps=$(make -n -C "$recipe" TOPDIR="$here/mk" INCLUDE_DIR="$here/mk" BUILD_DIR="$out" install)
for want in -DPKGD_TESTS=OFF -DPKGD_BENCH=OFF -DPKGD_SANDBOX=OFF -DPKGD_BUS_TOOLS=OFF "--target pkgd" \
	"daemon/pkgd $out/pkgd-1.0.0/ipkg-install/usr/sbin/pkgd" "/etc/init.d/pkgd" "/etc/config/pkgd"; do
	case "$steps" in *"$want"*) ;; *) fail "the recipe's steps lack '$want'" ;; esac
done

# The gateway: the board's files as the package installs them, the shipped configuration plus a
# second execution environment that the catalog knows as id 7.
root=$scratch/root
rm -rf "$root"
"$launcher" build "$root" >/dev/null
mkdir -p "$root/lib/functions" "$root/etc/config" "$root/etc/init.d"
cp "$here/rc.common" "$root/etc/rc.common"
cp "$here/functions.sh" "$root/lib/functions.sh"
cp "$here/procd.sh" "$root/lib/functions/procd.sh"
cp "$recipe/files/pkgd.init" "$root/etc/init.d/pkgd"
{ cat "$recipe/files/pkgd.config"; printf "config pkgd 'lxc1'\n\toption execenv_index 'lxc-a'\n"; } \
	>"$root/etc/config/pkgd"
echo '{"environments":[{"id":"7","name":"lxc-a","enabled":true}]}' >"$root/etc/gateway-sim.json"

"$launcher" run "$root" --with-sim --sim-notify --sim-arg -c --sim-arg /etc/gateway-sim.json \
	--tool "$pkgd:/usr/sbin/pkgd" >"$scratch/launcher.log" 2>&1 &
launcher_pid=$!
trap 'kill $launcher_pid 2>/dev/null; wait $launcher_pid 2>/dev/null; rm -rf "$root"' EXIT
tries=0
until [ -f "$root/var/run/sandbox/ready" ]; do
	tries=$((tries + 1))
	[ $tries -lt 300 ] && kill -0 $launcher_pid 2>/dev/null || fail "no sandbox: $(cat "$scratch/launcher.log")"
	sleep 0.1
done

inside() { "$launcher" exec "$root" -- "$@"; }
bus() { "$ubus" -s "$root/var/run/ubus/ubus.sock" "$@"; }
ee=Services.Management.LCM.ExecutionEnvironments
# Waits (at most 20 s) until OBJECT's Get answers with the environment name NAME.
wait_name() {
	tries=0
	until bus call "$1" Get 2>/dev/null | grep -q "\"Name\": *\"$2\""; do
		tries=$((tries + 1))
		[ $tries -lt 200 ] || fail "$1 did not answer as $2: $(cat "$root"/var/run/procd/pkgd/*/output)"
		sleep 0.1
	done
}

inside /etc/init.d/pkgd start
wait_name "$ee.System" System
wait_name "$ee.7" lxc-a
inside /etc/init.d/pkgd stop
objects=$(bus list)
case "$objects" in *"$ee.System"* | *"$ee.7"*) fail "pkgd's objects outlive stop: $objects" ;; esac
! inside pidof pkgd >/dev/null || fail "pkgd runs after stop"
echo "pass"
