#!/usr/bin/env bash
# Whole-network benchmark: a ResNet-18-shaped network on one [1,224,224,3] image,
# float and int8, through `kovra run`, at 1 and 2 threads, with the optional peers
# on the same network and weights when scripts/setup_peers.sh has installed them:
#
#   - ONNX Runtime (onnxruntime-node, in bench/peers/): the ONNX export of the float
#     network, 1 and 2 intra-op threads;
#   - PyTorch (Debian python3-torch): frozen TorchScript float, and int8 by
#     post-training static quantization on the "onednn" engine.
#
#   bench/resnet18.sh [BUILD_DIR]
#
# BUILD_DIR (default build/) must hold bin/kovra; nothing is built here. Models go
# to $RESNET18_CACHE (default BUILD_DIR/resnet18) and are rewritten when their
# writer changes. Each measurement is one process that runs the network 3 times
# untimed and then $RUNS (30) times timed, and reports the median time per run (for
# kovra, from its per-node trace: first node start to last node end). Ours and the
# peers alternate, and the table shows, per engine, the median of $ROUNDS (5) such
# measurements. The machine may be shared: the script prints how many cores other
# processes kept busy on average while it was timing.
set -euo pipefail

here="$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)"
build="${1:-${here}/../build}"
kovra="${build}/bin/kovra"
cache="${RESNET18_CACHE:-${build}/resnet18}"
runs="${RUNS:-30}"
rounds="${ROUNDS:-5}"
threads_list=(1 2)
python=/usr/bin/python3
[[ -x "${python}" ]] || python=python3
ort_dir="${here}/peers/node_modules/onnxruntime-node"

if [[ ! -x "${kovra}" ]]; then
  echo "resnet18.sh: no kovra binary at ${kovra} (build the kovra target first)" >&2
  exit 2
fi
if ! "${python}" -c 'import numpy' 2>/dev/null; then
  echo "resnet18.sh: ${python} has no numpy (run scripts/setup_peers.sh)" >&2
  exit 2
fi
mkdir -p "${cache}"
work="$(mktemp -d)"
trap 'rm -rf "${work}"' EXIT

# ---- models ---------------------------------------------------------------------------------
if [[ ! -f "${cache}/resnet18_int8.pb" || "${here}/make_resnet18.py" -nt "${cache}/resnet18_int8.pb" ]]; then
  echo "Writing the models into ${cache}"
  "${python}" "${here}/make_resnet18.py" "${cache}"
  rm -f "${cache}/torch_int8.pt"
fi
have_torch=0
if "${python}" -c 'import torch' 2>/dev/null; then
  have_torch=1
  if [[ ! -f "${cache}/torch_int8.pt" || "${here}/resnet18_peers.py" -nt "${cache}/torch_int8.pt" ]]; then
    echo "Writing the torch models and the ONNX export"
    "${python}" -W ignore "${here}/resnet18_peers.py" prepare "${cache}"
  fi
else
  echo "PyTorch not found: no torch or ONNX Runtime columns (scripts/setup_peers.sh installs them)"
fi
have_ort=0
if [[ ${have_torch} == 1 && -d "${ort_dir}" ]] && command -v node >/dev/null 2>&1; then
  have_ort=1
elif [[ ${have_torch} == 1 ]]; then
  echo "onnxruntime-node not found in ${here}/peers: no ONNX Runtime column (scripts/setup_peers.sh)"
fi

input="${cache}/resnet18_input.npy"

# ---- correctness ----------------------------------------------------------------------------
# The float run also gives the peak resident set of one whole `kovra run`.
rss_kb=$("${python}" - "${kovra}" run "${cache}/resnet18_float.pb" -i input="${input}" \
  --out-dir "${work}/float" -q <<'EOF'
import os, resource, subprocess, sys
os.makedirs(sys.argv[sys.argv.index("--out-dir") + 1], exist_ok=True)
subprocess.run(sys.argv[1:], check=True, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
print(resource.getrusage(resource.RUSAGE_CHILDREN).ru_maxrss)
EOF
)
mkdir -p "${work}/int8"
"${kovra}" run "${cache}/resnet18_int8.pb" -i input="${input}" --out-dir "${work}/int8" -q >/dev/null 2>&1
if [[ ${have_ort} == 1 ]]; then
  node "${here}/resnet18_ort.js" "${ort_dir}" "${cache}/resnet18.onnx" "${cache}/input_nchw.bin" 1 1 \
    "${work}/ort.bin" >/dev/null
fi
"${python}" - "${cache}" "${work}" <<'EOF'
import os, sys
import numpy as np
cache, work = sys.argv[1:]
def load(path):
    return np.fromfile(path, dtype=np.float32) if path.endswith(".bin") else np.load(path).ravel()
ours = load(os.path.join(work, "float", "output.npy"))
ours8 = load(os.path.join(work, "int8", "output.npy"))
print("Correctness on the sample input (1000 logits, float range %.2f .. %.2f):" % (ours.min(), ours.max()))
print("  kovra float vs numpy float (make_resnet18.py):  max abs diff %.3g"
      % np.abs(ours - load(os.path.join(cache, "resnet18_numpy_float.npy"))).max())
if os.path.exists(os.path.join(cache, "torch_float.npy")):
    torch_float = load(os.path.join(cache, "torch_float.npy"))
    print("  kovra float vs torch float:                     max abs diff %.3g"
          % np.abs(ours - torch_float).max())
    if os.path.exists(os.path.join(work, "ort.bin")):
        print("  ORT float vs torch float:                       max abs diff %.3g"
              % np.abs(load(os.path.join(work, "ort.bin")) - torch_float).max())
def int8_line(label, q, f):
    print("  %-47s max abs diff %.3g, correlation %.5f, top-1 %s, %d distinct values"
          % (label, np.abs(q - f).max(), np.corrcoef(q, f)[0, 1], "same" if q.argmax() == f.argmax()
             else "differs", len(np.unique(q))))
int8_line("kovra int8 vs kovra float:", ours8, ours)
if os.path.exists(os.path.join(cache, "torch_int8.npy")):
    int8_line("torch int8 vs torch float:", load(os.path.join(cache, "torch_int8.npy")), torch_float)
# An int8 chain that collapsed (all zeros, or everything clipped) leaves few distinct logits.
if len(np.unique(ours8)) < 50 or np.corrcoef(ours8, ours)[0, 1] < 0.9:
    sys.exit("resnet18.sh: the int8 output does not follow the float output")
EOF
echo "  peak RSS of one float kovra run (load + 1 inference): $((rss_kb / 1024)) MiB"
echo

# ---- timing ---------------------------------------------------------------------------------
# Median ms per run of one process: runs 0-2 are untimed warm-up.
kovra_ms() {
  "${kovra}" run "$1" -i input="${input}" --repeat $((runs + 3)) --threads "$2" -q \
    --trace "${work}/trace.json" >/dev/null 2>&1
  "${python}" - "${work}/trace.json" <<'EOF'
import json, sys
import numpy as np
span = {}
for e in json.load(open(sys.argv[1]))["traceEvents"]:
    if e.get("ph") == "X" and e["args"]["run"] >= 3:
        lo, hi = span.get(e["args"]["run"], (float("inf"), float("-inf")))
        span[e["args"]["run"]] = (min(lo, e["ts"]), max(hi, e["ts"] + e["dur"]))
print("%.3f" % (np.median([hi - lo for lo, hi in span.values()]) / 1e3))
EOF
}
torch_ms() { "${python}" "${here}/resnet18_peers.py" time "${cache}" "$1" "$2" "${runs}"; }

# Busy CPU ticks of the whole machine (/proc/stat) and of this script's finished
# children (/proc/self/stat: cutime + cstime); the difference is everyone else's.
machine_busy() { awk '/^cpu / { print $2 + $3 + $4 + $7 + $8 + $9 }' /proc/stat; }
own_busy() { sed 's/.*) //' "/proc/$$/stat" | awk '{ print $14 + $15 }'; }

echo "Timing: ${rounds} rounds x ${runs} runs, $(nproc) cores"
busy0=$(machine_busy) own0=$(own_busy) start_ns=$(date +%s%N)
results="${work}/results"
: >"${results}"
for ((r = 0; r < rounds; ++r)); do
  for t in "${threads_list[@]}"; do
    echo "kovra_float ${t} $(kovra_ms "${cache}/resnet18_float.pb" "${t}")" >>"${results}"
    if [[ ${have_ort} == 1 ]]; then
      echo "ort_float ${t} $(node "${here}/resnet18_ort.js" "${ort_dir}" "${cache}/resnet18.onnx" \
        "${cache}/input_nchw.bin" "${t}" "${runs}")" >>"${results}"
    fi
    if [[ ${have_torch} == 1 ]]; then
      echo "torch_float ${t} $(torch_ms float "${t}")" >>"${results}"
    fi
    echo "kovra_int8 ${t} $(kovra_ms "${cache}/resnet18_int8.pb" "${t}")" >>"${results}"
    if [[ ${have_torch} == 1 ]]; then
      echo "torch_int8 ${t} $(torch_ms int8 "${t}")" >>"${results}"
    fi
  done
done
busy1=$(machine_busy) own1=$(own_busy) end_ns=$(date +%s%N)
awk -v b="$((busy1 - busy0))" -v o="$((own1 - own0))" -v hz="$(getconf CLK_TCK)" \
  -v s="$(((end_ns - start_ns) / 1000000))" 'BEGIN {
  others = (b - o) / hz / (s / 1e3)
  printf "Other processes kept %.2f cores busy on average during the %.0f s of timing\n", others, s / 1e3
  if (others > 0.5)
    print "Warning: the cores were shared; multi-threaded times (and spinning thread pools) suffer most" }'
echo

"${python}" - "${results}" <<'EOF'
import collections, sys
import numpy as np
ms = collections.defaultdict(list)
for line in open(sys.argv[1]):
    name, threads, value = line.split()
    ms[(name, int(threads))].append(float(value))
def cell(name, t):
    return "%.1f" % np.median(ms[(name, t)]) if ms[(name, t)] else "n/a"
def ratio(a, b, t):
    return "%.2f" % (np.median(ms[(a, t)]) / np.median(ms[(b, t)])) if ms[(a, t)] and ms[(b, t)] else "n/a"
print("ResNet-18, [1,224,224,3], median ms per run:")
print()
print("| threads | kovra float | ORT float | torch float | kovra int8 | torch int8 "
      "| kovra/ORT float | kovra int8/torch int8 | kovra int8/kovra float |")
print("|---:|---:|---:|---:|---:|---:|---:|---:|---:|")
for t in sorted({t for _, t in ms}):
    print("| %d | %s | %s | %s | %s | %s | %s | %s | %s |" % (
        t, cell("kovra_float", t), cell("ort_float", t), cell("torch_float", t), cell("kovra_int8", t),
        cell("torch_int8", t), ratio("kovra_float", "ort_float", t), ratio("kovra_int8", "torch_int8", t),
        ratio("kovra_int8", "kovra_float", t)))
EOF
