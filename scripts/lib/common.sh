# Shared by scripts/demo and scripts/test: installs what the build and the
# tests need (when root), and builds one configuration.

# Debian packages the build, the tests and the demo use.
MOX_PACKAGES="cmake g++ make libgtest-dev libssl-dev openssl zlib1g-dev iproute2 socat util-linux procps nginx rsyslog rsyslog-relp rsyslog-openssl librelp-dev pkg-config clang-14 libclang-rt-14-dev strace systemd groff-base busybox"

# Host packages of the cross builds (scripts/cross, scripts/test armhf),
# installed by install_cross_deps only: the cross compiler, qemu-user for
# the tests, and what the host's own mox_pack is built with.
MOX_CROSS_HOST_PACKAGES="cmake make g++ pkg-config libssl-dev zlib1g-dev librelp-dev qemu-user"
MOX_CROSS_PACKAGES_armhf="$MOX_CROSS_HOST_PACKAGES g++-arm-linux-gnueabihf"
MOX_CROSS_PACKAGES_aarch64="$MOX_CROSS_HOST_PACKAGES g++-aarch64-linux-gnu"
# Target packages unpacked into each cross sysroot (scripts/lib/cross.sh),
# with the run-time libraries they need.
MOX_SYSROOT_PACKAGES="libssl-dev zlib1g-dev librelp-dev libgtest-dev libstdc++6"

install_deps() {
  local missing=()
  for p in $MOX_PACKAGES; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
  done
  [ ${#missing[@]} -eq 0 ] && return 0
  if [ "$(id -u)" -ne 0 ]; then
    echo "missing Debian packages: ${missing[*]} (run as root, or apt-get install them)" >&2
    return 1
  fi
  echo "installing: ${missing[*]}"
  export DEBIAN_FRONTEND=noninteractive
  apt-get update -qq && apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
}

# build DIR [cmake options...]
build() {
  local dir=$1; shift
  cmake -S "$MOX_ROOT" -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo "$@" >/dev/null
  cmake --build "$dir" -j"$(nproc)"
}
