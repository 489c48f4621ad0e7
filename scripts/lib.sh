# Functions of all scripts: installing packages and building a preset. To be sourced, not run.
# shellcheck shell=bash disable=SC2034
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

# Debian 12 packages by purpose.
buildPackages=(g++ cmake ninja-build nlohmann-json3-dev libcli11-dev libelf-dev libedit-dev
  libmnl-dev libsystemd-dev libtomlplusplus-dev pkg-config)
testPackages=(libgtest-dev pkg-config binutils python3 iproute2 iputils-ping procps)
# Routing daemons for the tests of hostrouted. Only CI installs them, because they start as
# services.
routerPackages=(frr bird2)
benchPackages=(libbenchmark-dev liblmdb-dev libboost1.81-dev libabsl-dev libdpdk-dev pkg-config)
checkPackages=(clang-format-14 clang-tidy-14 python3)
fuzzPackages=(clang-14 libclang-rt-14-dev libgtest-dev)
coveragePackages=(gcovr)

die() {
  echo "$(basename "$0"): $*" >&2
  exit 1
}

isInstalled() {
  [ "$(dpkg-query -W -f='${db:Status-Status}' "$1" 2>/dev/null)" = installed ]
}

# installMissing PACKAGE...: installs the missing packages, with sudo when not root.
installMissing() {
  if ! command -v dpkg-query apt-get >/dev/null; then
    echo "Not a Debian system: going on as if these, or their like, were installed: $*" >&2
    return
  fi
  local missing=() package
  for package in "$@"; do
    isInstalled "$package" || missing+=("$package")
  done
  [ ${#missing[@]} -gt 0 ] || return 0

  local asRoot=()
  if [ "$(id -u)" -ne 0 ]; then
    command -v sudo >/dev/null ||
      die "root must do this first, there is no sudo here: apt-get install ${missing[*]}"
    asRoot=(sudo)
    # Without a terminal sudo cannot ask for a password.
    [ -t 0 ] || asRoot+=(-n)
  fi
  echo "Installing: ${missing[*]}"
  local apt=("${asRoot[@]}" env DEBIAN_FRONTEND=noninteractive apt-get -qq
    -o DPkg::Lock::Timeout=120 -o Dpkg::Use-Pty=0)
  # A failed update is not fatal: the present package lists may be sufficient.
  "${apt[@]}" update </dev/null || echo "The package lists could not be brought up to date." >&2
  "${apt[@]}" install -y --no-install-recommends "${missing[@]}" </dev/null ||
    die "could not do this: apt-get install ${missing[*]}"
}

# buildPreset PRESET [BUILD OPTION...]: configures and builds build/PRESET.
buildPreset() {
  local preset=$1
  shift
  if ccache --show-stats >/dev/null 2>&1; then
    export CMAKE_CXX_COMPILER_LAUNCHER=ccache CCACHE_BASEDIR=$PWD
  fi
  export CMAKE_BUILD_PARALLEL_LEVEL=${CMAKE_BUILD_PARALLEL_LEVEL:-$(nproc)}
  cmake --preset "$preset" >/dev/null
  cmake --build --preset "$preset" "$@"
}
