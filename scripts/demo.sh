#!/usr/bin/env bash
# Sets everything up, builds, and shows what kovra is for on a trained network
# (examples/digits/: a small convolutional network for sklearn's digits, float
# and int8):
#   1. both models over the 360 held-out images: accuracies and agreement;
#   2. kovra compare of the host's int8 dump against a chip's dump, in which one
#      layer rounds differently: the first divergence and what follows it;
#   3. kovra verify: the one layer that computes differently, also as an HTML report.
# Exits non-zero when any result differs from what examples/digits/README.md says.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/setup.sh build -DCMAKE_BUILD_TYPE=Release
kovra=./build/bin/kovra
digits=examples/digits
out=build/demo
rm -rf "$out"
mkdir -p "$out"

show() {
  echo "\$ kovra ${*:2}"
  "$@"
}

# compare and verify exit 1 when they find a difference, which is the point here; anything
# else, or another layer than the chip's faulty one, ends the demo with an error.
expect() {  # STATUS FILE LINE
  if [ "$1" -ne 1 ] || ! grep -qx "$3" "$2"; then
    echo "demo: expected exit status 1 and the line '$3' (got status $1; output in $2)" >&2
    exit 1
  fi
}

echo
echo "=== 1. The trained network, float and int8, on the held-out images of $digits"
for model in float int8; do
  show "$kovra" run -q --format plain "$digits/${model}_model.pb" -i "input=$digits/test_images.npy" \
    --out-dir "$out/$model"
done
python3 "$digits/accuracy.py" "$digits/test_labels.npy" "float=$out/float/logits.npy" \
  "int8=$out/int8/logits.npy" | tee "$out/accuracy.txt"

echo
echo "=== 2. The host's int8 run against a chip's dump of the same images ($digits/chip_dump)"
show "$kovra" run -q --format plain "$digits/int8_model.pb" -i "input=$digits/chip_images.npy" \
  --dump "$out/host_dump"
status=0
show "$kovra" compare "$out/host_dump" "$digits/chip_dump" --rtol 0 --atol 0 | tee "$out/compare.txt" ||
  status=$?
expect "$status" "$out/compare.txt" "first divergence: gap"

echo
echo "=== 3. Each layer run on the chip's own inputs: which one computes differently"
status=0
show "$kovra" verify "$digits/int8_model.pb" "$digits/chip_dump" -i "input=$digits/chip_images.npy" \
  --rtol 0 --atol 0 --html "$out/report.html" | tee "$out/verify.txt" || status=$?
expect "$status" "$out/verify.txt" "first node that computes differently: gap"

echo
echo "The report page, with the chart of every layer: $out/report.html"
echo "Everything else the demo wrote is in $out/ (host_dump/manifest.tsv lists the dumped tensors)."
