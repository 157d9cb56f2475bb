#!/usr/bin/env bash
# Sets up and builds Zevra, then runs the whole test suite with ctest.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh
BUILD_DIR=${ZEVRA_BUILD_DIR:-build}
cd "$BUILD_DIR"
ctest --output-on-failure -j "$(nproc)" --timeout 600 "$@"
