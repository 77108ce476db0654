#!/usr/bin/env bash
# Sets everything up, builds, and runs the two example models with the kovra
# tool: a float network and an int8 network (quantize, int8 convolutions,
# dequantize). Each output is checked against the reference values that
# examples/make_examples.py computed independently.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/setup.sh build -DCMAKE_BUILD_TYPE=Release
kovra=./build/bin/kovra
out=build/demo
rm -rf "$out"
status=0
for example in float int8; do
  model=examples/${example}_model.pbtxt
  echo
  echo "=== $model"
  $kovra inspect "$model" | sed -n '/^graph inputs/,$p'
  input=input=examples/${example}_input.npy
  if ! $kovra run "$model" -i "$input" --out-dir "$out/$example" --dump "$out/$example-dump" >/dev/null ||
     ! $kovra run "$model" -i "$input" --repeat 5; then
    status=1
    continue
  fi
  # The reference under the output's file name, so that compare pairs them.
  mkdir -p "$out/$example-expected"
  for produced in "$out/$example"/*.npy; do
    cp examples/${example}_expected.npy "$out/$example-expected/$(basename "$produced")"
  done
  tolerance=(--rtol 0 --atol 0)
  [ "$example" = float ] && tolerance=(--rtol 1e-5 --atol 1e-5)
  $kovra compare "$out/$example" "$out/$example-expected" "${tolerance[@]}" || status=1
  echo "every intermediate tensor: $out/$example-dump (manifest.tsv lists them in execution order)"
done
exit $status
