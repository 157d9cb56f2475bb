#!/usr/bin/env bash
# Sets up and builds Zevra, then starts it with the demo project on the simulated target. Without a
# display it runs under Xvfb.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh
BUILD_DIR=${ZEVRA_BUILD_DIR:-build}
# With arguments of its own (another project, --batch ...) Zevra gets those instead of the demo.
[ $# -gt 0 ] || set -- examples/demo/demo.zvproj
if [ -z "${DISPLAY:-}" ] && [ -z "${WAYLAND_DISPLAY:-}" ] && [ -z "${QT_QPA_PLATFORM:-}" ]; then
  exec xvfb-run -a -s "-screen 0 1600x1000x24" "$BUILD_DIR/app/zevra" "$@"
fi
exec "$BUILD_DIR/app/zevra" "$@"
