#!/usr/bin/env bash
# Checks the layout of every tracked C++ file, then builds (warnings are
# errors), checks the naming rules (clang-tidy) and runs every test: a plain build (including the tests that boot
# the SocketCAN VM), then the whole suite under AddressSanitizer + UBSan, then
# under ThreadSanitizer. Any failure fails the run.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
scripts/install-deps.sh

echo "=== format (clang-format, .clang-format) ==="
git ls-files -z '*.cpp' '*.h' | xargs -0 clang-format --dry-run --Werror

jobs=$(nproc)
build() { # dir sanitizer
  cmake -S . -B "$1" -DORVANE_SANITIZER="$2" -DORVANE_WERROR=ON -DCMAKE_EXPORT_COMPILE_COMMANDS=ON >/dev/null
  cmake --build "$1" -j "$jobs"
}

echo "=== plain build ==="
build build ""

echo "=== naming (clang-tidy, .clang-tidy) ==="
scripts/naming.sh build
(cd build && ctest --output-on-failure -j "$jobs")

echo "=== AddressSanitizer + UndefinedBehaviorSanitizer ==="
build build-asan address
(cd build-asan && ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 \
   UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
   ctest --output-on-failure -j "$jobs" -LE "vm|install")

echo "=== ThreadSanitizer ==="
build build-tsan thread
(cd build-tsan && TSAN_OPTIONS="halt_on_error=1 second_deadlock_stack=1 suppressions=$root/scripts/tsan.supp" \
   ctest --output-on-failure -j "$jobs" -LE "vm|install")

echo "=== all tests passed ==="
