#!/usr/bin/env bash
# Sets everything up and runs the whole test suite twice: a Release build, and
# a build with AddressSanitizer and UndefinedBehaviorSanitizer (ctest runs the
# Python package's pytest suite too, python_package); then the tests that use
# the thread pool under ThreadSanitizer, and a short run of every fuzz target
# when clang is installed.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/setup.sh build -DCMAKE_BUILD_TYPE=Release
(cd build && ctest --output-on-failure -j2)

scripts/setup.sh build-asan -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKOVRA_SANITIZE=ON -DKOVRA_BUILD_BENCH=OFF
(cd build-asan && ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1 ctest --output-on-failure -j2)

scripts/tsan.sh
scripts/fuzz.sh 20 --smoke
