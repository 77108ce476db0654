#!/usr/bin/env bash
# Installs what bench/resnet18.sh needs to write its models and to time the
# optional peers on the same network. The library, its tests and the other
# benchmarks never need any of this.
#
#   - Debian: numpy for the model writer; PyTorch (float and
#     quantized inference, and the ONNX export of the float network).
#   - npm: onnxruntime-node, installed without its install scripts (the CPU
#     build ships inside the package) into bench/peers/, which git ignores.
#
#   scripts/setup_peers.sh
set -euo pipefail
cd "$(dirname "$0")/.."

packages=(python3 python3-numpy python3-torch nodejs npm)

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
# A node.js from another source may ship its own npm; do not ask apt for it then.
if command -v node >/dev/null 2>&1 && command -v npm >/dev/null 2>&1; then
  filtered=()
  for p in "${missing[@]}"; do [[ "$p" == nodejs || "$p" == npm ]] || filtered+=("$p"); done
  missing=("${filtered[@]}")
fi
if [ ${#missing[@]} -gt 0 ]; then
  echo "Installing: ${missing[*]}"
  SUDO=""
  [ "$(id -u)" -ne 0 ] && SUDO="sudo"
  $SUDO apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}" \
    >/dev/null
fi

peers=bench/peers
mkdir -p "$peers"
if [ ! -d "$peers/node_modules/onnxruntime-node" ]; then
  echo "Installing onnxruntime-node into $peers"
  [ -f "$peers/package.json" ] ||
    echo '{ "name": "kovra-bench-peers", "private": true }' >"$peers/package.json"
  npm install --prefix "$peers" --ignore-scripts --no-audit --no-fund onnxruntime-node >/dev/null
fi
echo "Peers ready: $(/usr/bin/python3 -c 'import torch; print("torch", torch.__version__)')," \
  "onnxruntime-node $(node -p "require('./$peers/node_modules/onnxruntime-node/package.json').version")"
