#!/usr/bin/env bash
# Builds the benchmarks in Release and prints this library beside its peers
# (Boost.Asio, libevent, spdlog, a plain mutex + condition-variable queue),
# then draws docs/performance.svg from the same results:
#   scripts/bench.sh [--repetitions N] [further sw_bench arguments]
# The raw results stay in build/bench/results.json. On Debian, missing packages
# (Google Benchmark, the peers, matplotlib) are installed first.
set -euo pipefail

repetitions=5
if [[ "${1:-}" == "--repetitions" ]]; then
    repetitions="${2:?--repetitions needs a number}"
    shift 2
fi

root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
source "$root/scripts/deps.sh"
sw_install_packages "${SW_BUILD_PACKAGES[@]}" libbenchmark-dev libboost-dev libevent-dev \
    libspdlog-dev python3 python3-matplotlib

cd "$root"
cmake --preset bench
cmake --build --preset bench
ctest --preset bench

# The trace benchmarks write their files into the working directory.
scratch="$(mktemp -d)"
trap 'rm -rf "$scratch"' EXIT
results="$root/build/bench/results.json"
console="$root/build/bench/console.txt"
echo "running the benchmarks, $repetitions repetitions each (a few minutes; progress in $console)"
(cd "$scratch" && "$root/build/bench/bench/sw_bench" \
    --benchmark_repetitions="$repetitions" --benchmark_report_aggregates_only=true \
    --benchmark_out="$results" --benchmark_out_format=json "$@" >"$console" 2>&1) || {
    tail -n 20 "$console" >&2
    exit 1
}
echo
python3 "$root/scripts/bench_table.py" "$results"
# Debian's matplotlib belongs to the system's interpreter, which another
# python3 earlier on the PATH may hide.
python="python3"
[[ -x /usr/bin/python3 ]] && python=/usr/bin/python3
# A partial run (arguments for sw_bench) leaves the published chart alone.
chart="$root/docs/performance.svg"
(($# > 0)) && chart="$root/build/bench/performance.svg"
"$python" "$root/scripts/bench_chart.py" "$results" "$chart"
