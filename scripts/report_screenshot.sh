#!/usr/bin/env bash
# Regenerates docs/report.png, the picture of a verify report in the README: the
# demo's int8 digits network against its chip dump, whose gap layer rounds half
# away from zero. A developer step; the tests do not run it. Needs a built kovra (build/bin/kovra, or KOVRA=path) and
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
mkdir -p "$work"
# The demo's verify: the digits network against its chip dump (exit code 1:
# the chip's gap layer differs, as intended).
"$kovra" verify examples/digits/int8_model.pb examples/digits/chip_dump \
  -i input=examples/digits/chip_images.npy --rtol 0 --atol 0 --html "$work/report.html" >/dev/null ||
  [ $? = 1 ]
chromium --headless --no-sandbox --disable-gpu --hide-scrollbars --window-size=1100,1000 \
  --screenshot="$PWD/$work/report.png" "file://$PWD/$work/report.html" 2>/dev/null
cp "$work/report.png" docs/report.png
echo "docs/report.png: $(stat -c %s docs/report.png) bytes"
