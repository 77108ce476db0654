#!/usr/bin/env bash
# Builds the libFuzzer targets with clang in build-fuzz and runs all of them at
# once, each for SECONDS (default 60), on its corpus: build-fuzz/corpus/<target>
# (kept between runs, not committed), the generated seeds and the kept
# reproducers of fuzz/regressions/<target>. A crash leaves its input in
# build-fuzz/artifacts/<target>/ and makes the script fail; the logs (with the
# executions and coverage reached) are in build-fuzz/logs/. With --smoke the
# kept corpus is left alone and a fresh one is used, so the run takes SECONDS
# plus the seeds whatever the corpus has grown to (the test command does that).
#   scripts/fuzz.sh [SECONDS] [--smoke]
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-60}
corpus=corpus
if [ "${2:-}" = "--smoke" ]; then
  corpus=smoke
  rm -rf build-fuzz/smoke
fi
build=build-fuzz
targets=(fuzz_model fuzz_npy fuzz_dump fuzz_protected)

if ! command -v clang++ >/dev/null 2>&1; then
  echo "clang++ is not installed: no fuzzing (the replay tests still run the kept inputs)."
  exit 0
fi
launcher=()
command -v ccache >/dev/null 2>&1 && launcher=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
cmake -S . -B "$build" "${launcher[@]}" -DCMAKE_CXX_COMPILER=clang++ -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DKOVRA_FUZZ=ON -DKOVRA_BUILD_TESTS=OFF -DKOVRA_BUILD_TOOLS=OFF -DKOVRA_BUILD_BENCH=OFF >/dev/null
cmake --build "$build" -j"$(nproc)" --target "${targets[@]}"
python3 fuzz/make_seeds.py "$build/seeds"

mkdir -p "$build/logs"
pids=()
for t in "${targets[@]}"; do
  mkdir -p "$build/$corpus/$t" "$build/artifacts/$t"
  dirs=("$build/$corpus/$t" "$build/seeds/$t")
  [ -d "fuzz/regressions/$t" ] && dirs+=("fuzz/regressions/$t")
  # Leaks are findings; 2 GiB is far above what the memory budget lets a run hold.
  "$build/bin/$t" -max_total_time="$seconds" -rss_limit_mb=2048 -timeout=20 -print_final_stats=1 \
    -artifact_prefix="$build/artifacts/$t/" "${dirs[@]}" \
    >"$build/logs/$t.log" 2>&1 &
  pids+=($!)
done
failed=0
for i in "${!targets[@]}"; do
  t=${targets[$i]}
  if wait "${pids[$i]}"; then
    status=ok
  else
    status="FAILED (see $build/logs/$t.log and $build/artifacts/$t/)"
    failed=1
  fi
  runs=$(grep -o 'stat::number_of_executed_units: *[0-9]*' "$build/logs/$t.log" | grep -o '[0-9]*$' || true)
  cov=$(grep -o 'cov: [0-9]*' "$build/logs/$t.log" | tail -1 || true)
  echo "$t: ${runs:-?} runs, ${cov:-cov: ?} edges, $status"
done
exit $failed
