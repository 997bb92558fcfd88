#!/usr/bin/env bash
# Builds and runs the whole test suite. Usage: scripts/test.sh [dev|asan|tsan]...
# (default: dev). Installs missing build dependencies first.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh
presets=("$@")
[ ${#presets[@]} -gt 0 ] || presets=(dev)
for preset in "${presets[@]}"; do
  echo "=== ${preset} ===" >&2
  cmake --preset "$preset" >/dev/null
  cmake --build --preset "$preset"
  ctest --preset "$preset" -j 2
done
