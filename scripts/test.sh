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
source "$root/scripts/deps.sh"
sw_install_packages "${SW_BUILD_PACKAGES[@]}"

cd "$root"
cmake --workflow --preset "$preset"
