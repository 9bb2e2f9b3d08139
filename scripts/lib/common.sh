# Shared by scripts/demo and scripts/test: installs what the build and the
# tests need (when root), and builds one configuration.

# Debian packages the build, the tests and the demo use.
MOX_PACKAGES="cmake g++ make libgtest-dev libssl-dev openssl zlib1g-dev iproute2 socat util-linux procps nginx rsyslog rsyslog-relp rsyslog-openssl librelp-dev pkg-config clang-14 libclang-rt-14-dev strace systemd groff-base busybox"

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
