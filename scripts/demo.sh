#!/usr/bin/env bash
# Sets everything up and runs the bundled example model.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/setup.sh build -DCMAKE_BUILD_TYPE=Release
./build/bin/placeholder_ops_test --gtest_brief=1
