#!/usr/bin/env bash
# Builds the library and runs its tests with one CMake workflow preset:
#   scripts/test.sh [default|asan|tsan]
# On Debian, missing build and test packages are installed first (as root, or
# through sudo when it is available).
set -euo pipefail

preset="${1:-default}"
case "$preset" in
    default | asan | tsan) ;;
    *)
        echo "usage: $0 [default|asan|tsan]" >&2
        exit 2
        ;;
esac

root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"

packages=(cmake ninja-build g++ googletest libgtest-dev libgmock-dev pkg-config)
if command -v dpkg >/dev/null 2>&1; then
    missing=()
    for package in "${packages[@]}"; do
        # dpkg -s also succeeds for removed packages that left config files behind.
        if ! dpkg -s "$package" 2>/dev/null | grep -q '^Status: install ok installed$'; then
            missing+=("$package")
        fi
    done
    if ((${#missing[@]} > 0)); then
        if [[ "$(id -u)" -eq 0 ]]; then
            as_root=()
        elif command -v sudo >/dev/null 2>&1; then
            as_root=(sudo)
        else
            echo "missing packages: ${missing[*]} (run as root to install them)" >&2
            exit 1
        fi
        echo "installing: ${missing[*]}"
        "${as_root[@]}" apt-get update
        "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive \
            apt-get install -y --no-install-recommends "${missing[@]}"
    fi
else
    echo "no dpkg here; assuming ${packages[*]} (or equivalents) are installed" >&2
fi

cd "$root"
cmake --workflow --preset "$preset"
