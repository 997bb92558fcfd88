#!/usr/bin/env bash
# Installs the Debian packages the build and the tests need, if any is missing.
# Usage: scripts/install-deps.sh [docs]   (docs: also what the docs target and the install
# check need: Doxygen, graphviz, man)
set -euo pipefail

packages=(cmake ninja-build g++ clang libclang-rt-14-dev libgtest-dev libbenchmark-dev nlohmann-json3-dev
          libcli11-dev pkg-config make file)
for group in "$@"; do
  case "$group" in
    docs) packages+=(doxygen graphviz man-db) ;;
    *) echo "install-deps: unknown group '$group'" >&2; exit 2 ;;
  esac
done
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
