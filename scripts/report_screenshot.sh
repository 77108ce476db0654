#!/usr/bin/env bash
# Regenerates docs/report.png, the picture of a verify report in the README: the
# int8 example against a "chip" reference whose conv1 rounds a few codes up by
# one, its later layers computed from that conv1. A developer step; the tests
# do not run it. Needs a built kovra (build/bin/kovra, or KOVRA=path) and
# chromium, which it installs when missing.
set -euo pipefail
cd "$(dirname "$0")/.."

kovra=${KOVRA:-build/bin/kovra}
[ -x "$kovra" ] || cmake --build build --target kovra
if ! command -v chromium >/dev/null; then
  sudo=""
  [ "$(id -u)" = 0 ] || sudo=sudo
  $sudo apt-get update
  $sudo apt-get install -y --no-install-recommends chromium
fi

work=build/report_screenshot
rm -rf "$work"
mkdir -p "$work/chip"
model=examples/int8_model.pbtxt
input=input=examples/int8_input.npy
manifest=$work/host/manifest.tsv
"$kovra" run "$model" -i "$input" -q --dump "$work/host" >/dev/null

# The chip's raw files: the host's, but conv1 (uint8 codes) one higher on every
# seventh non-zero element.
cp "$work/host"/*.bin "$work/chip/"
python3 - "$work/chip/conv1.bin" <<'PY'
import sys
path = sys.argv[1]
codes = bytearray(open(path, "rb").read())
nonzero = [i for i, c in enumerate(codes) if 0 < c < 255]
for i in nonzero[::7]:
    codes[i] += 1
open(path, "wb").write(bytes(codes))
PY
# What the chip computes after conv1, from its own conv1.
"$kovra" run "$model" --start conv2 -i "conv1=$work/chip/conv1.bin" --manifest "$manifest" -q \
  --dump "$work/downstream" >/dev/null
cp "$work/downstream/conv2.bin" "$work/downstream/output_dequantize.bin" "$work/chip/"

# Exit code 1: the reference differs, as intended.
"$kovra" verify "$model" "$work/chip" --manifest "$manifest" -i "$input" --rtol 0 --atol 0 \
  --html "$work/report.html" >/dev/null || [ $? = 1 ]
chromium --headless --no-sandbox --disable-gpu --hide-scrollbars --window-size=1100,920 \
  --screenshot="$PWD/$work/report.png" "file://$PWD/$work/report.html" 2>/dev/null
cp "$work/report.png" docs/report.png
echo "docs/report.png: $(stat -c %s docs/report.png) bytes"
