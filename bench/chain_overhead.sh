#!/usr/bin/env bash
# Per-node cost of the executor, measured end to end through the command-line
# tool on the chains of bench/make_chain_models.py (2000 tiny nodes each):
#
#   ns/node = (time of `kovra run --repeat N+1` - time of `--repeat 1`) / N / NODES
#
# Process start, model reading and the first run cancel out in the difference,
# so what is left is the steady-state cost of one node in one run, with the
# tool's per-node profiler on (as --repeat switches it on).
#
#   bench/chain_overhead.sh [KOVRA_BINARY] [N] [TRIALS]
#
# KOVRA_BINARY defaults to build/bin/kovra, N to 400, TRIALS to 5. Each trial
# times both runs back to back; the medians of the two times are used, since
# the machine may be shared. Prints one line per chain:
#
#   relu_chain  2000 nodes  N=400  t1=38.1ms  tN+1=201.3ms  ns/node=204.0
set -euo pipefail

here="$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)"
kovra="${1:-${here}/../build/bin/kovra}"
n="${2:-400}"
trials="${3:-5}"
nodes=2000

if [[ ! -x "${kovra}" ]]; then
  echo "chain_overhead.sh: no kovra binary at ${kovra} (build the kovra target first)" >&2
  exit 2
fi

work="$(mktemp -d)"
trap 'rm -rf "${work}"' EXIT
python3 "${here}/make_chain_models.py" "${work}" "${nodes}"

# Wall time of one run of the tool, in nanoseconds.
time_ns() {
  local start end
  start=$(date +%s%N)
  "${kovra}" run "$1" -i input="${work}/chain_input.npy" --repeat "$2" >/dev/null 2>&1
  end=$(date +%s%N)
  echo $((end - start))
}

median() { sort -n | awk '{ v[NR] = $1 } END { print (NR % 2) ? v[(NR + 1) / 2] : (v[NR / 2] + v[NR / 2 + 1]) / 2 }'; }

for chain in relu_chain conv_chain; do
  model="${work}/${chain}.pbtxt"
  # One untimed run warms the page cache and checks that the model runs at all.
  "${kovra}" run "${model}" -i input="${work}/chain_input.npy" >/dev/null
  ones=()
  manys=()
  for ((t = 0; t < trials; ++t)); do
    ones+=("$(time_ns "${model}" 1)")
    manys+=("$(time_ns "${model}" $((n + 1)))")
  done
  t1=$(printf '%s\n' "${ones[@]}" | median)
  tn=$(printf '%s\n' "${manys[@]}" | median)
  awk -v c="${chain}" -v nodes="${nodes}" -v n="${n}" -v t1="${t1}" -v tn="${tn}" 'BEGIN {
    printf "%-11s %d nodes  N=%d  t1=%.1fms  tN+1=%.1fms  ns/node=%.1f\n",
           c, nodes, n, t1 / 1e6, tn / 1e6, (tn - t1) / n / nodes }'
done
