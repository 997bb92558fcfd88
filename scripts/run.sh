#!/usr/bin/env bash
# The main job: builds everything and runs the guided tour of the device simulator through
# the hxf command-line tool. Installs missing build dependencies first.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh
cmake --preset dev >/dev/null
cmake --build --preset dev >/dev/null
exec build/dev/tools/hxf/hxf demo "$@"
