#!/usr/bin/env bash
# Sets everything up and runs the whole test suite.
#   scripts/test.sh              release build
#   scripts/test.sh --sanitize   the same suite under AddressSanitizer + UBSan
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh "$@"
build=build
[ "${1:-}" = "--sanitize" ] && build=build-asan
export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=1}
export LSAN_OPTIONS=${LSAN_OPTIONS:-suppressions=$PWD/tests/lsan.supp}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}
ctest --test-dir "$build" -j"$(nproc)" --output-on-failure --timeout 300
