#!/usr/bin/env bash
# Installs the Debian packages a job needs, if any is missing.
# Usage: scripts/install-deps.sh [GROUP]...
#   (no group)  the main job: compiler, CMake, Ninja, CLI11 and nlohmann-json
#   tests       + GoogleTest, Google Benchmark, tmux and python3 (the tool's tests), Asio and
#                 sd-bus (the anchors of the comparison benchmark)
#   sanitizers  + clang and its sanitizer runtimes (the asan, tsan and fuzz presets), and
#                 libxml2 (the fuzzer of the UPnP plugin's readers, which needs no GUPnP)
#   docs        + Doxygen, graphviz and man (the docs target)
#   install     + docs, pkg-config, make and file (scripts/check-install.sh)
#   upnp        + GUPnP and GSSDP 1.6 (the UPnP plugin), and the real devices its tests run:
#                 gupnp-tools (gupnp-network-light), minidlna, xvfb, iproute2 (namespaces),
#                 gmediarender (a media renderer) with GStreamer's tools and plugins, sox (the
#                 tone it plays) and python3 (the HTTP server that serves it), rygel and
#                 rygel-playbin (a second renderer; without its recommends: no user session
#                 bus, no codecs beyond base and good).
#                 Installing minidlna must not start the system's media server, which would
#                 announce itself on the machine's real network: services are kept from
#                 starting during the install (policy-rc.d).
#   dbus        + sd-bus (hxfd), and the real D-Bus parts its tests use: dbus-daemon, busctl,
#                 gdbus, python3-dbus, the stock system-bus configuration, runuser (callers
#                 as nobody) and systemd-analyze (the system unit)
#   mqtt        + libmosquitto (hxfd's MQTT front) and the real MQTT parts its tests use:
#                 Mosquitto, mosquitto_sub/_pub, python3-paho-mqtt and openssl (a test CA);
#                 the Mosquitto service is kept from starting like minidlna
set -euo pipefail

packages=(cmake ninja-build g++ libcli11-dev nlohmann-json3-dev)
for group in "$@"; do
  case "$group" in
    tests) packages+=(libgtest-dev libbenchmark-dev tmux python3 libasio-dev pkg-config
      libsystemd-dev) ;;
    sanitizers) packages+=(clang libclang-rt-14-dev libxml2-dev) ;;
    docs) packages+=(doxygen graphviz man-db) ;;
    install) packages+=(doxygen graphviz man-db pkg-config make file) ;;
    upnp) packages+=(pkg-config libgupnp-1.6-dev libgssdp-1.6-dev gupnp-tools minidlna xvfb
      iproute2 gmediarender gstreamer1.0-tools gstreamer1.0-plugins-base
      gstreamer1.0-plugins-good sox python3 rygel rygel-playbin) ;;
    dbus) packages+=(pkg-config libsystemd-dev dbus-daemon systemd libglib2.0-bin python3-dbus
      python3-gi dbus-system-bus-common util-linux) ;;
    mqtt) packages+=(pkg-config libmosquitto-dev mosquitto mosquitto-clients python3-paho-mqtt
      openssl) ;;
    *) echo "install-deps: unknown group '$group'" >&2; exit 2 ;;
  esac
done
missing=()
for pkg in "${packages[@]}"; do
  status=$(dpkg-query -W -f='${Status}' "$pkg" 2>/dev/null || true)
  [ "$status" = "install ok installed" ] || missing+=("$pkg")
done
[ ${#missing[@]} -eq 0 ] && exit 0

echo "installing: ${missing[*]}" >&2
sudo_cmd=()
[ "$(id -u)" -eq 0 ] || sudo_cmd=(sudo)
export DEBIAN_FRONTEND=noninteractive
policy=/usr/sbin/policy-rc.d
if [ ! -e "$policy" ]; then
  # 101: "action forbidden by policy"; removed again however the install ends.
  printf '#!/bin/sh\nexit 101\n' | "${sudo_cmd[@]}" tee "$policy" >/dev/null
  "${sudo_cmd[@]}" chmod 755 "$policy"
  trap '"${sudo_cmd[@]}" rm -f "$policy"' EXIT
fi
"${sudo_cmd[@]}" apt-get update -qq
"${sudo_cmd[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}"
