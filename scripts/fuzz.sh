#!/usr/bin/env bash
# Builds the fuzz targets with clang, libFuzzer, ASan and UBSan (the fuzz
# preset) and runs each one for a while, starting from its checked-in corpus:
#   scripts/fuzz.sh [seconds per target, default 60] [target...]
# New inputs go to build/fuzz/corpus/<target>, crashes to
# build/fuzz/artifacts/. Exits 1 if any target fails.
set -euo pipefail

seconds="${1:-60}"
shift || true
if ! [[ "$seconds" =~ ^[1-9][0-9]*$ ]]; then
    echo "usage: $0 [seconds per target] [target...]" >&2
    exit 2
fi

root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
source "$root/scripts/deps.sh"
# libclang-rt-14-dev carries libFuzzer and the sanitizer runtimes.
sw_install_packages "${SW_BUILD_PACKAGES[@]}" clang-14 libclang-rt-14-dev

cd "$root"
targets=("$@")
if ((${#targets[@]} == 0)); then
    for dir in fuzz/corpus/*/; do targets+=("$(basename "$dir")"); done
fi
cmake --preset fuzz >/dev/null
cmake --build --preset fuzz --target "${targets[@]}"

out="$root/build/fuzz"
mkdir -p "$out/artifacts"
summary=()
status=0
for target in "${targets[@]}"; do
    echo "=== $target, ${seconds} s"
    mkdir -p "$out/corpus/$target"
    log="$out/$target.log"
    result=ok
    if ! "$out/fuzz/$target" -max_total_time="$seconds" -max_len=4096 -print_final_stats=1 \
        -artifact_prefix="$out/artifacts/$target-" "$out/corpus/$target" "fuzz/corpus/$target" \
        >"$log" 2>&1; then
        tail -n 40 "$log"
        result=FAILED
        status=1
    fi
    # The last status line carries the coverage; the final stats the executions.
    runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -n 1)
    cov=$(grep -o 'cov: [0-9]* ft: [0-9]*' "$log" | tail -n 1)
    summary+=("$(printf '%-22s %12s runs  %s  %s' "$target" "${runs:-?}" "${cov:-?}" "$result")")
done
echo "=== summary (${seconds} s per target)"
printf '%s\n' "${summary[@]}"
exit "$status"
