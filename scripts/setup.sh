#!/usr/bin/env bash
# Installs the Debian packages the build and the tests need (only those missing),
# then configures and builds one build directory.
#   scripts/setup.sh [BUILD_DIR] [extra cmake arguments...]
# FERRYHOLD_TARGETS, when set, names the targets to build instead of all of them.
set -euo pipefail
cd "$(dirname "$0")/.."

packages=(
  cmake ninja-build g++ pkg-config ccache
  libplist-dev libplist-utils libfmt-dev libssl-dev openssl libacl1-dev liburing-dev
  libxml2-dev zlib1g-dev libdeflate-dev libbz2-dev liblzma-dev
  libcurl4-openssl-dev
  libgtest-dev libgmock-dev libbenchmark-dev python3 clang
  libarchive-tools nginx-light curl
  libcli11-dev nlohmann-json3-dev scdoc
  debhelper dpkg-dev lintian fakeroot
  libmount-dev libblkid-dev libgtk-4-dev
  xvfb xauth dbus-daemon at-spi2-core python3-pyatspi xdotool
)
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  echo "setup: installing ${missing[*]}" >&2
  export DEBIAN_FRONTEND=noninteractive
  apt-get update -qq
  apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
fi

build_dir=${1:-build}
shift || true
cmake -S . -B "$build_dir" -G Ninja -DCMAKE_BUILD_TYPE=Release "$@" >/dev/null
# shellcheck disable=SC2086
cmake --build "$build_dir" ${FERRYHOLD_TARGETS:+--target $FERRYHOLD_TARGETS} >&2
