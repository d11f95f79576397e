# Shared set-up of scripts/test, scripts/demo and scripts/bench.
# shellcheck shell=bash

KOR_ROOT=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)

# Debian packages the build, the tests and the demo need.
KOR_PACKAGES=(build-essential cmake pkg-config libcurl4-openssl-dev zlib1g-dev libssl-dev
  libgtest-dev googletest libbenchmark-dev nginx-light vsftpd e2fsprogs curl
  util-linux time clang libclang-rt-14-dev openssl mandoc groff-base u-boot-tools iproute2)

# A mirror in the middle of a sync can fail one index file while every
# package needed is still there: go on, and let the install itself decide.
kor_apt_update() {
  apt-get update -qq >/dev/null 2>&1 || echo "note: apt-get update reported errors; trying anyway" >&2
}

# Installs what is missing (as root), or says the one command to run.
kor_ensure_packages() {
  local missing=() p
  for p in "$@"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
  done
  [ ${#missing[@]} -eq 0 ] && return 0
  if [ "$(id -u)" -eq 0 ]; then
    echo "== Installing: ${missing[*]}"
    export DEBIAN_FRONTEND=noninteractive
    kor_apt_update
    apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
  else
    echo "Missing packages: ${missing[*]}" >&2
    echo "Install them with:  sudo apt-get install -y ${missing[*]}" >&2
    exit 1
  fi
}

# Configures and builds into $1 with extra CMake arguments.
kor_build() {
  local dir=$1; shift
  cmake -S "$KOR_ROOT" -B "$dir" -DKOR_WERROR=ON "$@" >"$dir.configure.log" 2>&1 \
    || { cat "$dir.configure.log"; return 1; }
  cmake --build "$dir" -j"$(nproc)" 2>&1 | grep -E 'error|warning|Error' || true
  cmake --build "$dir" -j"$(nproc)" >/dev/null
}

# --- Cross build for ARMv7 hard-float, run under qemu-arm ---------------------
KOR_ARMHF_PACKAGES=(g++-arm-linux-gnueabihf qemu-user)
# armhf packages unpacked into the sysroot, with the runtime dependency closure
# of libcurl; the C library headers and crt files come with the cross compiler.
# libssl-dev: OpenSSL's headers for kor, libcrypto for mkvelk and the tests.
KOR_ARMHF_ROOTS=(libcurl4-openssl-dev libcurl4 zlib1g-dev zlib1g libssl-dev libssl3 libgtest-dev libc6
  libstdc++6 libgcc-s1)
KOR_ARMHF_SYSROOT="$KOR_ROOT/build/armhf-sysroot"

# Adds the armhf architecture to dpkg once (root only), so apt can fetch its packages.
kor_armhf_arch() {
  dpkg --print-foreign-architectures | grep -qx armhf && return 0
  if [ "$(id -u)" -ne 0 ]; then
    echo "armhf packages need: sudo dpkg --add-architecture armhf && sudo apt-get update" >&2
    exit 1
  fi
  echo "== Adding the armhf architecture to dpkg"
  dpkg --add-architecture armhf
  kor_apt_update
}

# Unpacks the armhf libraries into $KOR_ARMHF_SYSROOT unless it is complete
# already (for the same list of packages). apt-get download + dpkg -x instead
# of a multiarch install: the host's and armhf's package versions need not
# match, and nothing is installed.
kor_armhf_sysroot() {
  local root=$KOR_ARMHF_SYSROOT debs="$KOR_ARMHF_SYSROOT.debs" pkgs p d l
  [ "$(cat "$root/.complete" 2>/dev/null)" = "${KOR_ARMHF_ROOTS[*]}" ] && return 0
  echo "== Making the armhf sysroot in $root"
  rm -rf "$root" "$debs"
  mkdir -p "$root" "$debs"
  pkgs=$(apt-cache depends --recurse --no-recommends --no-suggests --no-conflicts \
      --no-breaks --no-replaces --no-enhances "${KOR_ARMHF_ROOTS[@]/%/:armhf}" 2>/dev/null |
    grep -E '^[a-z0-9].*:armhf$' | sort -u |
    grep -vE '^(libc6-dev|linux-libc-dev|libcrypt-dev|libnsl-dev|libtirpc-dev|libc-dev-bin|rpcsvc-proto):')
  # shellcheck disable=SC2086
  (cd "$debs" && apt-get download -qq $pkgs 2>&1 | grep -v '^W: Download is performed unsandboxed' || true)
  for p in $pkgs; do
    ls "$debs/${p%:armhf}"_*_armhf.deb >/dev/null 2>&1 || { echo "missing package $p" >&2; return 1; }
  done
  for d in "$debs"/*.deb; do dpkg -x "$d" "$root"; done
  # Absolute links (libz.so -> /lib/...) must point into the sysroot.
  find "$root" -type l -lname '/*' | while read -r l; do
    ln -sfn "$(realpath -m --relative-to="$(dirname "$l")" "$root$(readlink "$l")")" "$l"
  done
  rm -rf "$debs"
  echo "${KOR_ARMHF_ROOTS[*]}" >"$root/.complete"
}

# The command that runs an armhf program of ours on this machine. qemu-arm
# finds the armhf loader and libraries through QEMU_LD_PREFIX: a sysroot path
# with blanks then needs no quoting in the command.
kor_armhf_emulator() { echo "qemu-arm"; }
