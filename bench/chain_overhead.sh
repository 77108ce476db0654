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
# the machine may be shared. The per-node cost is given from wall time and
# from CPU time (user + system, steadier when other work competes for the
# cores). Prints one line per chain:
#
#   relu_chain  2000 nodes  N=400  wall: t1=17.2ms tN+1=100.7ms ns/node=104.4  cpu: ns/node=101.2
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

# Wall and CPU (user + system) time of one run of the tool, in microseconds.
# On a busy machine the CPU time is the steadier of the two.
times_us() {
  local TIMEFORMAT='%3R %3U %3S'
  { time "${kovra}" run "$1" -i input="${work}/chain_input.npy" --repeat "$2" >/dev/null 2>&1; } 2>&1 |
    awk '{ printf "%d %d\n", $1 * 1e6, ($2 + $3) * 1e6 }'
}

median() { sort -n | awk '{ v[NR] = $1 } END { print (NR % 2) ? v[(NR + 1) / 2] : (v[NR / 2] + v[NR / 2 + 1]) / 2 }'; }

for chain in relu_chain conv_chain; do
  model="${work}/${chain}.pbtxt"
  # One untimed run warms the page cache and checks that the model runs at all.
  "${kovra}" run "${model}" -i input="${work}/chain_input.npy" >/dev/null 2>&1
  : >"${work}/one" && : >"${work}/many"
  for ((t = 0; t < trials; ++t)); do
    times_us "${model}" 1 >>"${work}/one"
    times_us "${model}" $((n + 1)) >>"${work}/many"
  done
  wall1=$(cut -d' ' -f1 "${work}/one" | median)
  walln=$(cut -d' ' -f1 "${work}/many" | median)
  cpu1=$(cut -d' ' -f2 "${work}/one" | median)
  cpun=$(cut -d' ' -f2 "${work}/many" | median)
  awk -v c="${chain}" -v nodes="${nodes}" -v n="${n}" -v w1="${wall1}" -v wn="${walln}" -v c1="${cpu1}" \
    -v cn="${cpun}" 'BEGIN {
    printf "%-11s %d nodes  N=%d  wall: t1=%.1fms tN+1=%.1fms ns/node=%.1f  cpu: ns/node=%.1f\n",
           c, nodes, n, w1 / 1e3, wn / 1e3, (wn - w1) * 1e3 / n / nodes, (cn - c1) * 1e3 / n / nodes }'
done
