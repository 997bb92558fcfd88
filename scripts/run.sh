#!/usr/bin/env bash
# The main job: builds the project and runs the demo program, which initialises and
# finalises the core and prints every line the core logged.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh
cmake --preset dev >/dev/null
cmake --build --preset dev >/dev/null
exec build/dev/tools/hxf-init-demo/hxf-init-demo
