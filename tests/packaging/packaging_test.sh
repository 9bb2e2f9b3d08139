#!/bin/sh
# Installs the build with cmake --install, makes both Debian packages with
# cpack and installs them into an empty root with dpkg; then has each tool
# that reads one of the shipped files check it. A check whose tool is
# missing says so and is skipped.
#   packaging_test.sh BUILD_DIR PROJECT_VERSION
set -eu
build=$1 version=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
fail() { echo "FAIL: $*" >&2; exit 1; }
have() { command -v "$1" >/dev/null || { echo "skipped: $2 ($1 not installed)"; return 1; }; }
# Passes when the command succeeds and prints nothing at all.
quiet() { out=$("$@" 2>&1) && [ -z "$out" ] || fail "$* said: $out"; }

prefix=$work/prefix
cmake --install "$build" --prefix "$prefix" >/dev/null
for f in sbin/mox_logd sbin/mox_conf bin/mox_logdecode share/mox/release.pkg \
    share/man/man8/mox_logd.8 share/man/man8/mox_conf.8 share/man/man1/mox_logdecode.1 \
    lib/systemd/system/mox_logd.service etc/init.d/mox_logd etc/rsyslog.d/mox-collector.conf; do
  [ -f "$prefix/$f" ] || fail "cmake --install left out $f"
done

(cd "$build" && cpack -B "$work/debs" >/dev/null) || fail "cpack"
device=$(ls "$work"/debs/mox-logd_"$version"_*.deb) || fail "no mox-logd package of version $version"
collector=$(ls "$work"/debs/mox-logdecode_"$version"_*.deb) || fail "no mox-logdecode package"
dpkg-deb -c "$device" | grep -q mox_logdecode && fail "the decoder is in the device package"
dpkg-deb -c "$collector" | grep -q 'sbin/' && fail "device programs are in the collector package"

root=$work/root
mkdir -p "$root/var/lib/dpkg/info" "$root/var/lib/dpkg/updates"
: > "$root/var/lib/dpkg/status"
dpkg --root="$root" --admindir="$root/var/lib/dpkg" --log=/dev/null --force-not-root \
  --force-depends --force-architecture -i "$device" "$collector" >/dev/null 2>&1 || fail "dpkg -i"
for f in usr/sbin/mox_logd usr/sbin/mox_conf usr/bin/mox_logdecode usr/share/mox/release.pkg \
    usr/share/man/man8/mox_logd.8 usr/share/man/man8/mox_conf.8 \
    usr/share/man/man1/mox_logdecode.1 usr/lib/systemd/system/mox_logd.service \
    etc/init.d/mox_logd etc/rsyslog.d/mox-collector.conf; do
  [ -f "$root/$f" ] || fail "the packages left out /$f"
done
[ -x "$root/etc/init.d/mox_logd" ] || fail "the init script is not executable"
# The release package rides at the end of mox_conf: nothing may strip it.
cmp -s "$root/usr/sbin/mox_conf" "$build/mox_conf" || fail "packaged mox_conf differs from the build's"
grep -qx 'ExecStart=/usr/sbin/mox_logd' "$root/usr/lib/systemd/system/mox_logd.service" ||
  fail "the packaged unit does not start /usr/sbin/mox_logd"
grep -qx 'PROG=/usr/sbin/mox_logd' "$root/etc/init.d/mox_logd" || fail "init script's PROG"
grep -l '@[A-Z_]*@' "$root/etc/init.d/mox_logd" "$root"/usr/lib/systemd/system/* \
  "$root"/usr/share/man/man*/* && fail "placeholders left in the files above"
[ "$(dpkg-deb --ctrl-tarfile "$device" | tar -xOf - ./conffiles)" = /etc/init.d/mox_logd ] ||
  fail "device conffiles"
case $(readelf -h "$root/usr/sbin/mox_logd" | sed -n 's/^ *Machine: *//p') in
  *X86-64) arch=amd64 ;; AArch64) arch=arm64 ;; ARM) arch=armhf ;; *) arch=unknown ;;
esac
for deb in "$device" "$collector"; do
  [ "$(dpkg-deb -f "$deb" Architecture)" = "$arch" ] || fail "$deb is not for $arch"
done

if have systemd-analyze "systemd unit check"; then
  MANPATH=$prefix/share/man quiet systemd-analyze verify "$prefix/lib/systemd/system/mox_logd.service"
fi
if have groff "manual page check"; then
  for page in "$root"/usr/share/man/man*/*; do
    quiet groff -man -Tutf8 -ww -z "$page"
  done
fi
quiet sh -n "$root/etc/init.d/mox_logd"
if have busybox "init script check with OpenWrt's shell"; then
  quiet busybox sh -n "$root/etc/init.d/mox_logd"
fi
if have rsyslogd "rsyslog setting check"; then
  echo "include(file=\"$root/etc/rsyslog.d/mox-collector.conf\")" > "$work/rsyslog.conf"
  rsyslogd -N1 -f "$work/rsyslog.conf" >/dev/null 2>&1 || fail "rsyslogd -N1 refuses the setting"
fi
echo "packaging: all checks passed ($arch)"
