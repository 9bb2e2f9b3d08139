# Shared by scripts/cross and scripts/test: cross builds for ARCH (armhf or
# aarch64) with Debian's cross compilers and a sysroot holding the target's
# OpenSSL, zlib, librelp, GoogleTest and their run-time libraries, unpacked
# from Debian's packages for that architecture.
#
# The sysroot is not a multiarch install: libssl-dev:armhf must then match
# the host's OpenSSL to the last digit, which a host that is behind the
# mirror never does. Instead apt runs on a private state folder with the
# target as its only architecture, downloads the packages and their
# dependencies, and dpkg -x unpacks them. The host's dpkg database and apt
# configuration stay as they were.
#
# Needs scripts/lib/common.sh (MOX_CROSS_PACKAGES_*, MOX_SYSROOT_PACKAGES).

# The GNU triplet of a Debian architecture the project builds for.
cross_triplet() {
  case "$1" in
    armhf) echo arm-linux-gnueabihf ;;
    aarch64) echo aarch64-linux-gnu ;;
    *) return 1 ;;
  esac
}

# Debian's name of the architecture.
cross_debian_arch() {
  case "$1" in
    armhf) echo armhf ;;
    aarch64) echo arm64 ;;
    *) return 1 ;;
  esac
}

# Where the sysroots are kept: outside every source tree and never below
# /tmp, which the test sandbox replaces (the emulator reads the sysroot for
# every program it starts there).
cross_cache_dir() {
  if [ -n "${MOX_CROSS_CACHE:-}" ]; then
    echo "$MOX_CROSS_CACHE"
  elif [ "$(id -u)" -eq 0 ]; then
    echo /var/cache/mox-cross
  else
    echo "${XDG_CACHE_HOME:-$HOME/.cache}/mox-cross"
  fi
}

# install_cross_deps ARCH: the host packages of a cross build for ARCH
# (apt-get, as root). 0 when they are all there; 1 with the reason printed
# on stdout as one line.
install_cross_deps() {
  local list_name="MOX_CROSS_PACKAGES_$1"
  local missing=()
  for p in ${!list_name}; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
  done
  [ ${#missing[@]} -eq 0 ] && return 0
  if [ "$(id -u)" -ne 0 ]; then
    echo "missing Debian packages ${missing[*]}, and not root to install them"
    return 1
  fi
  echo "installing: ${missing[*]}" >&2
  export DEBIAN_FRONTEND=noninteractive
  if ! { apt-get update -qq && apt-get install -y -qq --no-install-recommends "${missing[@]}"; } \
      >/dev/null 2>&1; then
    echo "apt-get could not install ${missing[*]} (no network to the Debian mirror?)"
    return 1
  fi
}

# make_sysroot ARCH: prints the sysroot's path once it holds
# MOX_SYSROOT_PACKAGES for ARCH and their run-time dependencies. A sysroot
# made from the same list is reused as it is, without asking the mirror.
# 1 with the reason printed on stdout as one line.
make_sysroot() {
  local arch debian_arch top
  debian_arch=$(cross_debian_arch "$1") || { echo "unknown architecture $1"; return 1; }
  arch=$1
  top="$(cross_cache_dir)/$arch"
  local root="$top/sysroot" stamp="$top/sysroot.list"
  local want="$debian_arch: $MOX_SYSROOT_PACKAGES"
  if [ -f "$stamp" ] && [ "$(cat "$stamp")" = "$want" ] && [ -d "$root" ]; then
    echo "$root"
    return 0
  fi
  if ! mkdir -p "$top/apt/lists/partial" "$top/apt/archives/partial" 2>/dev/null; then
    echo "cannot create $top (set MOX_CROSS_CACHE to a writable folder)"
    return 1
  fi
  : >"$top/apt/status"
  # A private apt: its own lists, cache and (empty) package database, the
  # target as its only architecture, the host's sources and keys.
  local apt_opts=(
    -o "Dir::State=$top/apt" -o "Dir::State::Lists=$top/apt/lists"
    -o "Dir::State::status=$top/apt/status" -o "Dir::Cache=$top/apt"
    -o "Dir::Cache::archives=$top/apt/archives"
    -o "APT::Architecture=$debian_arch" -o "APT::Architectures=$debian_arch"
    -o "APT::Sandbox::User=root" -o "Debug::NoLocking=1"
  )
  # A mirror caught mid-sync fails one index (often the security one);
  # what the other indexes give still makes a sysroot, and a package that
  # is truly missing fails the download below.
  apt-get "${apt_opts[@]}" -qq update >"$top/apt/update.log" 2>&1 || true
  local closure
  closure=$(apt-cache "${apt_opts[@]}" depends --recurse --no-recommends --no-suggests \
      --no-conflicts --no-breaks --no-replaces --no-enhances $MOX_SYSROOT_PACKAGES 2>/dev/null |
    grep -v '^[ <]' | sort -u)
  if [ -z "$closure" ]; then
    echo "no $debian_arch package index from the Debian mirror (see $top/apt/update.log)"
    return 1
  fi
  # The packages asked for, and the run-time libraries below them: the
  # cross compiler brings its own C library headers, and tools or sources
  # have no place in a sysroot.
  local take=() p
  for p in $closure; do
    case " $MOX_SYSROOT_PACKAGES " in
      *" $p "*) take+=("$p"); continue ;;
    esac
    case "$p" in
      *-dev | *-bin | *-common) ;;
      lib* | zlib*) take+=("$p") ;;
    esac
  done
  rm -f "$top/apt/archives/"*.deb
  if ! (cd "$top/apt/archives" && apt-get "${apt_opts[@]}" -qq download "${take[@]}") \
      >"$top/apt/download.log" 2>&1; then
    echo "downloading the $debian_arch packages failed (see $top/apt/download.log)"
    return 1
  fi
  rm -rf "$root" "$stamp"
  mkdir -p "$root"
  local deb
  for deb in "$top/apt/archives/"*.deb; do
    dpkg-deb -x "$deb" "$root" || { echo "cannot unpack $deb"; return 1; }
  done
  rm -f "$top/apt/archives/"*.deb
  # Links such as libz.so name their target from the target's root: made
  # relative, they stay inside the sysroot.
  local link
  while IFS= read -r -d '' link; do
    ln -sfr "$root$(readlink "$link")" "$link"
  done < <(find "$root" -type l -lname '/*' -print0)
  echo "$want" >"$stamp"
  echo "$root"
}

# cross_prepare ARCH: installs the host packages and makes the sysroot;
# sets MOX_SYSROOT. 1 with the reason in MOX_CROSS_REASON when they cannot
# be had (not root, no network). It builds nothing, so that a caller that
# tests its result never takes a build failure for a missing package.
cross_prepare() {
  local out
  if ! out=$(install_cross_deps "$1"); then
    MOX_CROSS_REASON=$out
    return 1
  fi
  if ! out=$(make_sysroot "$1"); then
    MOX_CROSS_REASON=$out
    return 1
  fi
  MOX_SYSROOT=$out
}

# cross_build ARCH [cmake options...]: after cross_prepare, builds the
# host's mox_pack (build-host-tools), then configures and builds
# build-cross-ARCH. The programs keep their symbols here; scripts/cross
# strips copies. A router's flash is counted in kilobytes: device builds
# are optimised for size (-Os), and their tests run on that very build.
cross_build() {
  local arch=$1
  shift
  # The packer runs here and packs with the keys the device build
  # compiles in, so both builds are given the same ones.
  # The packer never ships, so the development keys are allowed here;
  # the device build below judges the keys it compiles in.
  cmake -S "$MOX_ROOT" -B "$MOX_ROOT/build-host-tools" -DCMAKE_BUILD_TYPE=Release \
    -DMOX_ALLOW_DEV_KEYS=ON -DMOX_TESTS=OFF "${MOX_KEY_OPTIONS[@]}" >/dev/null
  cmake --build "$MOX_ROOT/build-host-tools" -j2 --target mox_pack >/dev/null
  cmake -S "$MOX_ROOT" -B "$MOX_ROOT/build-cross-$arch" \
    -DCMAKE_TOOLCHAIN_FILE="$MOX_ROOT/cmake/toolchain-$arch.cmake" \
    -DMOX_SYSROOT="$MOX_SYSROOT" -DMOX_HOST_PACK="$MOX_ROOT/build-host-tools/mox_pack" \
    -DCMAKE_BUILD_TYPE=MinSizeRel "${MOX_KEY_OPTIONS[@]}" "$@" >/dev/null
  cmake --build "$MOX_ROOT/build-cross-$arch" -j2
}

# The release keys, when the caller names its own (the defaults are the
# development pair, the same for both builds).
MOX_KEY_OPTIONS=()
for mox_key in MOX_RELEASE_SIGNING_KEY MOX_RELEASE_VERIFY_KEY MOX_ATTACK_PUBKEY MOX_ACCESS_PUBKEY; do
  [ -n "${!mox_key:-}" ] && MOX_KEY_OPTIONS+=("-D$mox_key=${!mox_key}")
done
unset mox_key
