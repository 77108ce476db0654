#!/usr/bin/env bash
# Installs the built tree into a scratch prefix (not the configured one), moves
# the installed tree elsewhere, and checks from there that it is complete and
# relocatable: every installed header compiles on its own, the library exports
# none of the internal classes, a program outside the tree builds and runs
# through the CMake package and through pkg-config, and the installed kovra
# runs the example models - all with LD_LIBRARY_PATH unset.
# With PYTHON, the installed Python package imports from there too and runs the
# int8 example exactly.
#   install_consumer.sh BUILD_DIR SOURCE_DIR CONFIGURED_PREFIX [PYTHON]
set -euo pipefail
build_dir=$1
source_dir=$2
configured_prefix=$3
python=${4:-}
unset LD_LIBRARY_PATH
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
fail() {
  echo "install_consumer: $*" >&2
  exit 1
}

cmake --install "$build_dir" --prefix "$scratch/staged" >/dev/null
mv "$scratch/staged" "$scratch/prefix"
prefix=$scratch/prefix
[ "$prefix" != "$configured_prefix" ] || fail "the scratch prefix is the configured one"
libdir=$(cd "$prefix" && ls -d lib*/libkovraExecutor.so.2 | xargs dirname)

# Headers: only the public set, each usable alone with the package's flags.
export PKG_CONFIG_PATH=$prefix/$libdir/pkgconfig
cflags=$(pkg-config --cflags kovraExecutor)
[ "$(realpath "$(pkg-config --variable=prefix kovraExecutor)")" = "$(realpath "$prefix")" ] ||
  fail "pkg-config names $(pkg-config --variable=prefix kovraExecutor), not the installed prefix"
headers=$(cd "$prefix/include" && find kovraexecutor -name '*.h' | sort)
for header in $headers; do
  echo "#include <$header>" | c++ -std=c++17 -fsyntax-only $cflags -x c++ - ||
    fail "installed header $header does not compile on its own"
done

# Internal classes stay hidden.
internal_classes='Graph|Node|NodeNameMap|OpExecutor|Holder|TensorDump|ThreadPool'
internal=$(nm -DC --defined-only "$prefix/$libdir/libkovraExecutor.so" |
           grep -E "kovraexecutor::($internal_classes)::" || true)
[ -z "$internal" ] || fail "internal symbols are exported: $(echo "$internal" | head -3)"

# The outside program, through the CMake package and through pkg-config.
cmake -S "$source_dir/examples/consumer" -B "$scratch/cmake-build" -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$scratch/cmake-build" >/dev/null
# The consumer also catches a bad model's error under the throwing policy,
# naming node and operator, and then runs a good model.
check_consumer() {
  local output
  output=$("$1") || fail "consumer built with $2 failed: $output"
  grep -qxF 'consumer: caught an error in node leaky (operator Z40LeakyRelu): Check failed: suc==>"Do not find the alpha in FloatZ40LeakyRelu!!!"' <<<"$output" ||
    fail "consumer built with $2 did not report the caught error: $output"
  grep -qxF 'consumer: the good model ran after the error: -1 4' <<<"$output" ||
    fail "consumer built with $2 did not run the good model after the error: $output"
  grep -qxF 'consumer: ok' <<<"$output" || fail "consumer built with $2: $output"
}
check_consumer "$scratch/cmake-build/kovra_consumer" CMake
mkdir "$scratch/pc-build"
make -s -f "$source_dir/examples/consumer/Makefile" OUT="$scratch/pc-build" >/dev/null
check_consumer "$scratch/pc-build/kovra_consumer" pkg-config

# The installed tool finds the installed library by its relative run path.
kovra=$prefix/bin/kovra
# Captured first: grep -q stops reading early, and ldd's broken pipe would fail the pipeline.
loaded=$(ldd "$kovra")
grep -qF "libkovraExecutor.so.2 => $prefix/" <<<"$loaded" || fail "kovra does not load the installed library"
for example in float int8; do
  out=$scratch/run-$example
  model=$source_dir/examples/${example}_model.pbtxt
  input=$source_dir/examples/${example}_input.npy
  "$kovra" run "$model" -i "input=$input" --out-dir "$out" >/dev/null 2>&1 ||
    fail "installed kovra cannot run the $example example"
  mkdir "$out-expected"
  for produced in "$out"/*.npy; do
    cp "$source_dir/examples/${example}_expected.npy" "$out-expected/$(basename "$produced")"
  done
  tolerance=(--rtol 0 --atol 0)
  [ "$example" = float ] && tolerance=(--rtol 1e-5 --atol 1e-5)
  "$kovra" compare "$out" "$out-expected" "${tolerance[@]}" >/dev/null ||
    fail "installed kovra: the $example example differs from its expected output"
done

if [ -n "$python" ]; then
  module=$(find "$prefix" -name '_kovra*.so' | head -1)
  [ -n "$module" ] || fail "the Python package is not installed"
  site=$(dirname "$(dirname "$module")")
  (cd "$scratch" && PYTHONPATH=$site "$python" -c "
import numpy as np, kovra
assert kovra.__file__.startswith('$site'), kovra.__file__
model = kovra.Model('$source_dir/examples/int8_model.pbtxt')
out = model.run({'input': np.load('$source_dir/examples/int8_input.npy')})
assert (out['output/dequantize'] == np.load('$source_dir/examples/int8_expected.npy')).all()
assert kovra.GraphBuilder().to_bytes() == b''
") >/dev/null || fail "the installed Python package cannot run the int8 example"
fi
echo "install_consumer: $(echo "$headers" | wc -l) headers, both consumer builds and the installed kovra pass"
