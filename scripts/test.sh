#!/usr/bin/env bash
# Sets everything up and runs the whole test suite.
#   scripts/test.sh              release build
#   scripts/test.sh --sanitize   the same suite under AddressSanitizer + UBSan
#   scripts/test.sh --tsan       the tests of threaded code under ThreadSanitizer
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh "$@"
build=build
[ "${1:-}" = "--sanitize" ] && build=build-asan
if [ "${1:-}" = "--tsan" ]; then
  build=build-tsan
  export TSAN_OPTIONS=${TSAN_OPTIONS:-halt_on_error=1:second_deadlock_stack=1:suppressions=$PWD/tests/tsan.supp}
fi
export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=1}
export LSAN_OPTIONS=${LSAN_OPTIONS:-suppressions=$PWD/tests/lsan.supp}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}
ctest --test-dir "$build" -j"$(nproc)" --output-on-failure --timeout 300
