#!/usr/bin/env bash
# Installs the built library into a scratch prefix, then configures, builds and
# runs a program outside the tree against it with find_package(kovraExecutor).
#   install_consumer.sh BUILD_DIR SOURCE_DIR
set -euo pipefail
build_dir=$1
source_dir=$2
prefix=$(mktemp -d)
trap 'rm -rf "$prefix"' EXIT
cmake --install "$build_dir" --prefix "$prefix/install" >/dev/null
test -f "$prefix/install/lib/pkgconfig/kovraExecutor.pc"
test -f "$prefix/install/include/kovraexecutor/lite/proto/graph_def.pb.h"
ls "$prefix"/install/lib/libkovraExecutor.so.2* >/dev/null
cmake -S "$source_dir/examples/consumer" -B "$prefix/build" -DCMAKE_PREFIX_PATH="$prefix/install" >/dev/null
cmake --build "$prefix/build" >/dev/null
"$prefix/build/kovra_consumer"
echo "1 passed, 0 failed"
