#!/usr/bin/env bash
# Builds Zevra with the sanitizers, each into a folder of its own, and runs the tests under them:
#   build-asan  AddressSanitizer + UndefinedBehaviorSanitizer (and LeakSanitizer): the whole suite;
#   build-tsan  ThreadSanitizer: the device, script and app tests.
# Any sanitizer report fails the test that made it; the script exits non-zero when a test failed.
# Usage: scripts/sanitize.sh [asan|tsan|all] [extra ctest arguments...]   (default: all)
# Suppressions (scripts/sanitizers/*.supp) are only for code outside the project, each with its reason.
set -euo pipefail
cd "$(dirname "$0")/.."
ROOT=$(pwd)

WHICH=${1:-all}
[ $# -gt 0 ] && shift
case "$WHICH" in
  asan | tsan | all) ;;
  *)
    echo "usage: $0 [asan|tsan|all] [ctest arguments...]" >&2
    exit 2
    ;;
esac

# The packages come from the one setup script; the sanitizer builds configure folders of their own.
ZEVRA_PACKAGES_ONLY=1 bash scripts/setup.sh
JOBS=${ZEVRA_JOBS:-$(nproc)}
# Warnings are not errors here, in CI too: the normal build enforces them, and the sanitizers'
# instrumentation makes GCC 12 warn falsely inside the standard library (-Wmaybe-uninitialized in
# <regex>).
WERROR=OFF

# configure DIR FLAGS
configure() {
  local dir=$1 flags=$2
  if [ ! -f "$dir/build.ninja" ] || [ "$(cat "$dir/.flags" 2>/dev/null)" != "$flags $WERROR" ]; then
    cmake -S . -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DZEVRA_WERROR=$WERROR \
      -DCMAKE_C_FLAGS="$flags" -DCMAKE_CXX_FLAGS="$flags" \
      -DCMAKE_EXE_LINKER_FLAGS="$flags" -DCMAKE_SHARED_LINKER_FLAGS="$flags"
    echo "$flags $WERROR" >"$dir/.flags"
  fi
}

status=0

if [ "$WHICH" = asan ] || [ "$WHICH" = all ]; then
  configure build-asan "-fsanitize=address,undefined -fno-sanitize-recover=all -fno-omit-frame-pointer"
  cmake --build build-asan -j "$JOBS"
  export ASAN_OPTIONS="detect_leaks=1:abort_on_error=0:halt_on_error=1:detect_stack_use_after_return=0"
  export LSAN_OPTIONS="suppressions=$ROOT/scripts/sanitizers/lsan.supp:print_suppressions=0"
  export UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1:suppressions=$ROOT/scripts/sanitizers/ubsan.supp"
  (cd build-asan && ctest --output-on-failure --no-tests=error -j "$JOBS" --timeout 900 "$@") || status=1
  unset ASAN_OPTIONS LSAN_OPTIONS UBSAN_OPTIONS
fi

if [ "$WHICH" = tsan ] || [ "$WHICH" = all ]; then
  configure build-tsan "-fsanitize=thread -fno-omit-frame-pointer"
  TSAN_TARGETS=(zevra_device_tests zevra_script_tests zevra_app_tests zevra_actions_tests zevra_base_tests
    zevra_tables_tests zevra)
  cmake --build build-tsan -j "$JOBS" --target "${TSAN_TARGETS[@]}"
  export TSAN_OPTIONS="halt_on_error=1:second_deadlock_stack=1:suppressions=$ROOT/scripts/sanitizers/tsan.supp"
  # ThreadSanitizer needs the address space laid out without randomisation on newer kernels.
  RUN=()
  if command -v setarch >/dev/null; then
    RUN=(setarch "$(uname -m)" -R)
  fi
  # The tests of those binaries, by their suite names.
  SUITES=$(for t in device/zevra_device_tests script/zevra_script_tests app/zevra_app_tests \
    app/actions/zevra_actions_tests app/base/zevra_base_tests app/tables/zevra_tables_tests; do
    QT_QPA_PLATFORM=offscreen "${RUN[@]}" "build-tsan/$t" --gtest_list_tests | grep -v '^ ' | tr -d '.'
  done | sort -u | paste -sd '|')
  # ScriptLimits recurses thousands of script calls deep on purpose: that overflows ThreadSanitizer's
  # own fixed-size record of the call stack (a crash inside the sanitizer). It runs in the other passes.
  (cd build-tsan && "${RUN[@]}" ctest --output-on-failure --no-tests=error -j "$JOBS" --timeout 1800 \
    -R "^($SUITES)\." -E "^ScriptLimits\." "$@") || status=1
  unset TSAN_OPTIONS
fi

exit $status
