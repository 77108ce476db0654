#!/usr/bin/env bash
# Builds the tests that run work on the library's thread pool with
# ThreadSanitizer (build-tsan, only those test programs) and runs them; any
# data race fails the script.
set -euo pipefail
cd "$(dirname "$0")/.."
build=build-tsan
tests=(thread_split_test errors_test bfc_arena_test int8_exact_path_test float_conv_test int8_conv_test)

launcher=()
command -v ccache >/dev/null 2>&1 && launcher=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
cmake -S . -B "$build" "${launcher[@]}" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKOVRA_TSAN=ON \
  -DKOVRA_BUILD_BENCH=OFF -DKOVRA_BUILD_TOOLS=OFF >/dev/null
cmake --build "$build" -j"$(nproc)" --target "${tests[@]}"
export TSAN_OPTIONS="halt_on_error=1 second_deadlock_stack=1 suppressions=$PWD/scripts/tsan.supp"
for t in "${tests[@]}"; do
  echo "== $t (ThreadSanitizer)"
  KOVRA_TEST_BIN_DIR="$PWD/$build/bin" KOVRA_SOURCE_DIR="$PWD" "$build/bin/$t" --gtest_brief=1
done
