#!/usr/bin/env bash
# Builds and runs the whole test suite. Usage: scripts/test.sh [dev|asan|tsan|install]...
# (default: dev). Installs what the chosen runs need first (scripts/install-deps.sh). HXF_LONG_TESTS=1 makes the
# stress run last a minute instead of three seconds. "install" installs into a temporary
# prefix and builds and runs the examples against it (scripts/check-install.sh).
set -euo pipefail
cd "$(dirname "$0")/.."
presets=("$@")
[ ${#presets[@]} -gt 0 ] || presets=(dev)
groups=(tests upnp dbus mqtt)  # upnp, dbus, mqtt: the UPnP plugin, hxfd and its MQTT front,
# and the real peers of their tests
for preset in "${presets[@]}"; do
  case "$preset" in asan | tsan) groups+=(sanitizers) ;; install) groups+=(install) ;; esac
done
scripts/install-deps.sh "${groups[@]}"
for preset in "${presets[@]}"; do
  echo "=== ${preset} ===" >&2
  if [ "$preset" = install ]; then
    scripts/check-install.sh
    continue
  fi
  stress_ms=3000
  [ "${HXF_LONG_TESTS:-0}" = 1 ] && stress_ms=60000
  cmake --preset "$preset" -DHXF_STRESS_MS="$stress_ms" >/dev/null
  cmake --build --preset "$preset"
  ctest --preset "$preset" -j 2
done
