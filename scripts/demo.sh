#!/usr/bin/env bash
# Builds the demo engine and the log tool (default preset, build/default) and
# runs the demo; every argument goes to the demo:
#   scripts/demo.sh [demo options]      (scripts/demo.sh --help lists them)
set -euo pipefail

root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
source "$root/scripts/deps.sh"
sw_install_packages "${SW_BUILD_PACKAGES[@]}"

cd "$root"
cmake --preset default >/dev/null
cmake --build --preset default --target sw_demo sw_shmlog
exec "$root/build/default/demo/sw_demo" "$@"
