#!/usr/bin/env bash
# Installs the Debian packages the build and the tests need, if any is missing.
set -euo pipefail

packages=(cmake ninja-build g++ clang libclang-rt-14-dev libgtest-dev libbenchmark-dev nlohmann-json3-dev
          libcli11-dev)
missing=()
for pkg in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$pkg" 2>/dev/null | grep -q "install ok installed" || missing+=("$pkg")
done
[ ${#missing[@]} -eq 0 ] && exit 0

echo "installing: ${missing[*]}" >&2
sudo_cmd=()
[ "$(id -u)" -eq 0 ] || sudo_cmd=(sudo)
export DEBIAN_FRONTEND=noninteractive
"${sudo_cmd[@]}" apt-get update -qq
"${sudo_cmd[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}"
