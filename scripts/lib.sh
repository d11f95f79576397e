# Shared set-up of scripts/test, scripts/demo and scripts/bench.
# shellcheck shell=bash

KOR_ROOT=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)

# Debian packages the build, the tests and the demo need.
KOR_PACKAGES=(build-essential cmake pkg-config libcurl4-openssl-dev zlib1g-dev
  libgtest-dev googletest libbenchmark-dev nginx-light vsftpd e2fsprogs curl
  util-linux time clang libclang-rt-14-dev)

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
    apt-get update -qq >/dev/null
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
