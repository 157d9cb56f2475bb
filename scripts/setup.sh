#!/usr/bin/env bash
# Installs the Debian packages Zevra needs (only those missing), then configures and builds.
# Safe to run again: apt-get is skipped when everything is present, and the build is incremental.
set -euo pipefail
cd "$(dirname "$0")/.."

PACKAGES=(
  cmake ninja-build ccache g++ pkg-config
  qt6-base-dev qt6-base-dev-tools libgl-dev
  libdwarf-dev libelf-dev librapidxml-dev libcapstone-dev libunicorn-dev
  gcc-arm-none-eabi libnewlib-arm-none-eabi binutils-arm-none-eabi
  qemu-system-arm gdb-multiarch
  xvfb xauth
  libgtest-dev libgmock-dev
)

missing=()
for p in "${PACKAGES[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  echo "Installing: ${missing[*]}"
  SUDO=""
  [ "$(id -u)" -eq 0 ] || SUDO="sudo"
  export DEBIAN_FRONTEND=noninteractive
  $SUDO apt-get update -qq
  $SUDO apt-get install -y --no-install-recommends "${missing[@]}"
fi

# ZEVRA_PACKAGES_ONLY=1: only the packages (the sanitizer script configures its own folders).
[ "${ZEVRA_PACKAGES_ONLY:-}" = 1 ] && exit 0

BUILD_DIR=${ZEVRA_BUILD_DIR:-build}
WERROR=OFF
[ "${CI:-}" = "true" ] && WERROR=ON
if [ ! -f "$BUILD_DIR/build.ninja" ] || [ "$(cat "$BUILD_DIR/.werror" 2>/dev/null)" != "$WERROR" ]; then
  cmake -S . -B "$BUILD_DIR" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DZEVRA_WERROR=$WERROR
  echo "$WERROR" > "$BUILD_DIR/.werror"
fi
cmake --build "$BUILD_DIR" -j "$(nproc)"
