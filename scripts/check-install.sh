#!/usr/bin/env bash
# Installs the framework into a temporary prefix, as a user outside this repository would
# get it, and checks what is there:
#   - every installed library: versioned SONAME, exactly its API under its version node
#     (nm -D), no RUNPATH other than $ORIGIN-relative ones (readelf -d), also for the tool
#     and the plugin;
#   - the docs target builds without a warning (Doxygen fails on any), the man page renders;
#   - both examples build against the prefix, through pkg-config and through find_package,
#     and run together: the consumer gets its greeting from the example plugin;
#   - the C++ example on the plugin kit (examples/kit) builds through find_package and
#     hxf::plugin-kit, exports its entry points only, and the installed hxf loads it by path;
#   - the installed hxf tool finds the simulator's devices.
#   - the installed D-Bus service file starts the installed hxfd when a caller names it.
#   - hxfd's system-bus files are there (bus policy, activation, systemd unit, sysusers.d, the
#     example configuration), the unit passes systemd-analyze verify, and hxfd reads its
#     default configuration from PREFIX/etc/hxf/hxfd.conf.
# Usage: scripts/check-install.sh   (installs what is missing first)
set -euo pipefail
cd "$(dirname "$0")/.."
root=$PWD
scripts/install-deps.sh install dbus  # dbus: hxfd and its activation check

work=$(mktemp -d /tmp/hxf-install.XXXXXX)
trap 'rm -rf "$work"' EXIT
prefix=$work/prefix
fail() { echo "check-install: $*" >&2; exit 1; }

echo "--- build and install into $prefix" >&2
cmake --preset host -DCMAKE_INSTALL_PREFIX="$prefix" >/dev/null
cmake --build --preset host >/dev/null
cmake --build --preset host --target docs
cmake --install build/host >/dev/null

echo "--- installed files" >&2
export PKG_CONFIG_PATH="$prefix/lib/pkgconfig"
version=$(pkg-config --modversion hxf-core)
major=${version%%.*}
for lib in hxf-core hexmoor-framework-common hxf-host-platform; do
  real=$(readlink -f "$prefix/lib/lib$lib.so")
  [ "$(basename "$real")" = "lib$lib.so.$version" ] || fail "lib$lib.so points at $real"
  [ "$(readlink "$prefix/lib/lib$lib.so.$major")" = "lib$lib.so.$version" ] ||
    fail "no lib$lib.so.$major link"
done
for check in "hxf-core hxf_core.h core" "hexmoor-framework-common hxf_common.h common" \
             "hxf-host-platform hxf_host_platform.h host"; do
  read -r lib header mode <<< "$check"
  cmake -DLIB="$prefix/lib/lib$lib.so" -DHEADER="$prefix/include/hxf/$header" -DMODE="$mode" \
        -DMAJOR="$major" -P tests/CheckExports.cmake
done
plugin_dir=$(pkg-config --variable=plugindir hxf-core)
[ "$plugin_dir" = "$prefix/lib/hxf/plugins/" ] || fail "plugin folder is $plugin_dir"
while IFS= read -r -d '' file; do
  [[ $(file -b "$file") == ELF* ]] || continue
  runpath=$(readelf -d "$file" | sed -n 's/.*(RUNPATH).*\[\(.*\)\]/\1/p; s/.*(RPATH).*\[\(.*\)\]/\1/p')
  IFS=: read -ra entries <<< "$runpath"
  for entry in "${entries[@]}"; do
    case "$entry" in
      '$ORIGIN' | '$ORIGIN/'*) ;;
      *) fail "$file has RUNPATH entry '$entry'" ;;
    esac
  done
  echo "ok  ${file#"$prefix"/}  ${runpath:-no RUNPATH}" >&2
done < <(find "$prefix" -type f -print0)
grep -rl --binary-files=text "$root/build" "$prefix" && fail "an installed file names the build tree"
# Whole outputs into variables, then compared: `producer | grep -q` lets grep exit early, and
# the producer's SIGPIPE would fail the pipeline.
sim_exports=$(nm -D --defined-only "$plugin_dir/libhxf-plugin-sim.so" | awk '$2 != "A" {print $3}' |
              sort | tr '\n' ' ')
[ "$sim_exports" = 'CreatePlugin@@HXF_PLUGIN DestroyPlugin@@HXF_PLUGIN ' ] ||
  fail "the simulator plugin exports more than its entry points: $sim_exports"
for page in hxf hxfd; do
  LC_ALL=C.UTF-8 MANWIDTH=80 man --warnings -l "$prefix/share/man/man1/$page.1" 2>"$work/man.err" >/dev/null ||
    fail "no man page $page.1"
  [ -s "$work/man.err" ] && { cat "$work/man.err" >&2; fail "the man page $page.1 has warnings"; }
done

echo "--- the installed tool" >&2
"$prefix/bin/hxf" search lights --timeout 500 > "$work/search.out" ||
  fail "hxf search failed: $(cat "$work/search.out")"
grep -q "^lamp-1 " "$work/search.out" || fail "hxf finds no lamp: $(cat "$work/search.out")"

echo "--- hxfd started by D-Bus activation from the installed service file" >&2
source "$root/tests/support/private_bus.sh"
write_bus_conf "$work/bus.conf" "$work/bus" "$prefix/share/dbus-1/services"
dbus-daemon --config-file="$work/bus.conf" --nofork --print-address=3 3>"$work/bus.address" 2>/dev/null &
bus_pid=$!
# (The bus is normally stopped below already: under set -e a failing kill here would fail the check.)
trap 'kill "$bus_pid" 2>/dev/null || true; rm -rf "$work"' EXIT
for _ in $(seq 100); do [ -s "$work/bus.address" ] && break; sleep 0.05; done
bus=(--address="unix:path=$work/bus")
busctl "${bus[@]}" call org.hxf.Broker /org/hxf/Broker org.hxf.Broker1 GetDevices su lights 2000 \
  >"$work/activated.out" || fail "no answer from an activated hxfd"
grep -q '"lamp-1"' "$work/activated.out" || fail "the activated hxfd lists no lamp"
broker_pid=$(busctl "${bus[@]}" call org.freedesktop.DBus /org/freedesktop/DBus \
  org.freedesktop.DBus GetConnectionUnixProcessID s org.hxf.Broker | cut -d' ' -f2)
kill -TERM "$broker_pid"
for _ in $(seq 100); do kill -0 "$broker_pid" 2>/dev/null || break; sleep 0.05; done
kill -0 "$broker_pid" 2>/dev/null && fail "the activated hxfd did not stop on SIGTERM"
kill "$bus_pid"
wait "$bus_pid" 2>/dev/null

echo "--- hxfd's system-bus files and configuration" >&2
grep -qx 'Exec=/bin/false' "$prefix/share/dbus-1/system-services/org.hxf.Broker.service" &&
  fail "the system activation file starts nothing"
for check in "share/dbus-1/system.d/org.hxf.Broker.conf:<allow own=\"org.hxf.Broker\"/>" \
  "share/dbus-1/system-services/org.hxf.Broker.service:Exec=$prefix/bin/hxfd --system" \
  "share/dbus-1/system-services/org.hxf.Broker.service:User=hxf" \
  "lib/systemd/system/hxfd.service:ExecStart=$prefix/bin/hxfd --system" \
  "lib/systemd/system/hxfd.service:User=hxf" \
  "lib/sysusers.d/hxfd.conf:g hxf-monitor -" \
  "share/doc/hxf/hxfd.conf:#plugins = sim upnp"; do
  file=${check%%:*}
  grep -qF "${check#*:}" "$prefix/$file" 2>/dev/null || fail "no $file with ${check#*:}"
done
systemd-analyze verify --man=no "$prefix/lib/systemd/system/hxfd.service" 2>"$work/verify.err" ||
  fail "systemd-analyze verify refuses the system unit: $(cat "$work/verify.err")"
[ -s "$work/verify.err" ] && fail "systemd-analyze verify warns: $(cat "$work/verify.err")"
# The example parses: hxfd gets as far as the bus (exit 1, not 2).
code=0
"$prefix/bin/hxfd" --config "$prefix/share/doc/hxf/hxfd.conf" --address "unix:path=$work/none" \
  2>"$work/example.err" || code=$?
[ "$code" = 1 ] || fail "hxfd with the example configuration exited with $code: $(cat "$work/example.err")"
# The default configuration lives under the prefix.
mkdir -p "$prefix/etc/hxf"
echo 'plugins =' >"$prefix/etc/hxf/hxfd.conf"
code=0
"$prefix/bin/hxfd" --address "unix:path=$work/none" 2>"$work/default.err" || code=$?
[ "$code" = 2 ] && grep -qxF "hxfd: $prefix/etc/hxf/hxfd.conf:1: plugins needs a value" "$work/default.err" ||
  fail "hxfd does not read $prefix/etc/hxf/hxfd.conf: $(cat "$work/default.err")"
rm -r "$prefix/etc/hxf"

echo "--- examples through pkg-config" >&2
cp -r examples "$work/pc"
(cd "$work/pc" && make -s && make -s install)
"$work/pc/hxf-example-consumer" pkg-config | tee "$work/pc.out"
grep -qx "greeter-1 says: hello, pkg-config" "$work/pc.out" || fail "no greeting (pkg-config)"

echo "--- examples through find_package" >&2
rm -f "$plugin_dir/libhxf-plugin-example.so"
cmake -S examples -B "$work/cm" -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_C_FLAGS=-Werror >/dev/null
cmake --build "$work/cm" >/dev/null
cmake --install "$work/cm" >/dev/null
"$work/cm/hxf-example-consumer" cmake | tee "$work/cm.out"
grep -qx "greeter-1 says: hello, cmake" "$work/cm.out" || fail "no greeting (find_package)"

echo "--- a C++ plugin on the installed plugin kit (find_package, hxf::plugin-kit)" >&2
cmake -S examples/kit -B "$work/kit" -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$work/kit" >/dev/null
kit_plugin=$work/kit/libhxf-plugin-counters.so
kit_exports=$(nm -D --defined-only "$kit_plugin" | awk '$2 != "A" {print $3}' | sort | tr '\n' ' ')
[ "$kit_exports" = 'CreatePlugin@@HXF_PLUGIN DestroyPlugin@@HXF_PLUGIN ' ] ||
  fail "the kit's example exports more than its entry points: $kit_exports"
"$prefix/bin/hxf" --plugin "$kit_plugin" request counters add device=counter-1 amount=3 |
  tee "$work/kit.out"
grep -q '^  count  *3$' "$work/kit.out" || fail "the kit's example did not count"

echo "install check passed" >&2
