#!/usr/bin/env bash
# Builds the API reference from the exported headers into build/docs/html
# (open build/docs/html/index.html). Fails on any Doxygen warning, an
# undocumented exported name included. On Debian, doxygen is installed first.
set -euo pipefail

root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
source "$root/scripts/deps.sh"
sw_install_packages doxygen

cd "$root"
rm -rf build/docs
mkdir -p build/docs
if ! doxygen docs/Doxyfile >build/docs/doxygen.log 2>&1 || grep -q . build/docs/doxygen.log; then
    cat build/docs/doxygen.log >&2
    echo "the reference has warnings (above); it must have none" >&2
    exit 1
fi
echo "reference: $root/build/docs/html/index.html"
