#!/usr/bin/env bash
# hxfd under a long mixed load, on a private dbus-daemon: callers that connect, request and
# leave (churn); a caller that opens 5000 sessions and leaves (hoarding); monitors that never
# read; steady normal callers. Requests per second (10 callers, 5 s) and hxfd's RSS are
# measured on the fresh daemon and again after the load (RSS once every caller has left).
# Prints both and their ratios; fails when throughput is below 0.9x the fresh daemon's or
# RSS grew by more than 2 MB. Not part of the test command (it takes MINUTES).
# Usage: scripts/soak.sh MINUTES [HXFD]      (HXFD: default build/dev/tools/hxfd/hxfd)
set -euo pipefail
cd "$(dirname "$0")/.."
minutes=${1:?usage: scripts/soak.sh MINUTES [HXFD]}
hxfd=${2:-build/dev/tools/hxfd/hxfd}
[ -x "$hxfd" ] || { echo "soak: no hxfd at $hxfd (build it, or name it)" >&2; exit 2; }
python=/usr/bin/python3  # python3-dbus belongs to the system's Python
"$python" -c 'import dbus, gi' 2>/dev/null ||
  { echo "soak: python3-dbus or python3-gi is missing (scripts/install-deps.sh dbus)" >&2; exit 2; }

work=$(mktemp -d)
pids=()
cleanup() {
  for pid in "${pids[@]}"; do kill "$pid" 2>/dev/null || true; done
  for pid in "${pids[@]}"; do wait "$pid" 2>/dev/null || true; done
  rm -rf "$work"
}
trap cleanup EXIT
source tests/support/private_bus.sh
source tests/support/await.sh
write_bus_conf "$work/bus.conf" "$work/bus"
# Room for the churn: the stock session limits otherwise.
sed -i 's|</busconfig>|<limit name="max_connections_per_user">100000</limit><limit name="max_completed_connections">100000</limit><limit name="max_incomplete_connections">10000</limit></busconfig>|' "$work/bus.conf"
dbus-daemon --config-file="$work/bus.conf" --nofork --print-address=3 3>"$work/address" 2>"$work/daemon.err" &
pids+=($!)
await_line "$work/address" 10 '^unix:'
address=unix:path=$work/bus
"$hxfd" --address "$address" >"$work/hxfd.out" 2>"$work/hxfd.err" &
hxfd_pid=$!
pids+=($hxfd_pid)
await_line "$work/hxfd.err" 10 '^hxfd: serving org.hxf.Broker$'

"$python" - "$address" "$hxfd_pid" "$minutes" <<'PY'
import os, sys, time, threading, multiprocessing, dbus

address, hxfd_pid, minutes = sys.argv[1], int(sys.argv[2]), float(sys.argv[3])
PROPS = dbus.Dictionary({"device_id": dbus.String("lamp-1", variant_level=1)}, signature="sv")

def rss_kb():
    with open("/proc/%d/status" % hxfd_pid) as f:
        for line in f:
            if line.startswith("VmRSS:"):
                return int(line.split()[1])
    return 0

def broker(bus):
    return dbus.Interface(bus.get_object("org.hxf.Broker", "/org/hxf/Broker"), "org.hxf.Broker1")

def callers():
    bus = dbus.bus.BusConnection(address)
    n = int(bus.get_object("org.hxf.Broker", "/org/hxf/Broker").Get(
        "org.hxf.Broker1", "Callers", dbus_interface="org.freedesktop.DBus.Properties"))
    bus.close()
    return n

def throughput_worker(seconds, out):
    bus = dbus.bus.BusConnection(address)
    b = broker(bus)
    done, deadline = 0, time.time() + seconds
    while time.time() < deadline:
        b.Request("lights", "get", PROPS, dbus.UInt32(2000))
        done += 1
    bus.close()
    out.put(done)

def throughput(seconds=5, workers=10):
    out = multiprocessing.Queue()
    ps = [multiprocessing.Process(target=throughput_worker, args=(seconds, out)) for _ in range(workers)]
    for p in ps: p.start()
    total = sum(out.get() for _ in ps)
    for p in ps: p.join()
    return total / seconds

def settle():
    # Every caller gone (reading a property makes none), then RSS after a breath.
    deadline = time.time() + 60
    while callers() != 0 and time.time() < deadline:
        time.sleep(0.2)
    time.sleep(1)

def churn(stop):
    cycles = 0
    while not stop.is_set():
        bus = dbus.bus.BusConnection(address)
        broker(bus).Request("lights", "get", PROPS, dbus.UInt32(2000))
        bus.close()
        cycles += 1
    return cycles

def hoard(stop):
    rounds = 0
    while not stop.is_set():
        bus = dbus.bus.BusConnection(address)
        b = broker(bus)
        for _ in range(5000):
            try:
                b.Subscribe("lights")
            except dbus.DBusException:
                pass  # beyond the per-caller limit: refused, as it should be
            if stop.is_set():
                break
        bus.close()
        rounds += 1
    return rounds

def slow_monitor(stop):
    rounds = 0
    while not stop.is_set():
        bus = dbus.bus.BusConnection(address)
        try:
            broker(bus).Monitor()
        except dbus.DBusException:
            pass
        stop.wait(20)  # never reads what the monitor sends, then leaves
        bus.close()
        rounds += 1
    return rounds

def normal(stop):
    bus = dbus.bus.BusConnection(address)
    b = broker(bus)
    n = 0
    while not stop.is_set():
        b.GetDevices("lights", dbus.UInt32(2000))
        b.Request("lights", "get", PROPS, dbus.UInt32(2000))
        n += 2
    bus.close()
    return n

def run(kind, stop, out):
    out.put((kind.__name__, kind(stop)))

# RSS is taken once the measuring callers have left, on both sides: the fresh daemon's
# then includes what serving at all costs (the core's threads, their first allocations).
settle()
rate0 = throughput()
settle()
rss0 = rss_kb()
print("fresh:  %7.0f requests/s, RSS %6d kB" % (rate0, rss0), flush=True)

stop = multiprocessing.Event()
out = multiprocessing.Queue()
kinds = [churn, churn, hoard, slow_monitor, slow_monitor, normal, normal]
ps = [multiprocessing.Process(target=run, args=(k, stop, out)) for k in kinds]
for p in ps: p.start()
end = time.time() + minutes * 60
while time.time() < end:
    time.sleep(min(30, max(0, end - time.time())))
    print("  %5.1f min: RSS %6d kB, callers %d" % ((minutes * 60 - (end - time.time())) / 60,
          rss_kb(), callers()), flush=True)
stop.set()
counts = {}
for _ in ps:
    name, n = out.get()
    counts[name] = counts.get(name, 0) + n
for p in ps: p.join()
print("load:   %d churn cycles, %d hoarding rounds (5000 Subscribe calls each), %d slow monitors, %d normal calls"
      % (counts.get("churn", 0), counts.get("hoard", 0), counts.get("slow_monitor", 0),
         counts.get("normal", 0)), flush=True)

settle()
rate1 = throughput()
settle()
rss1 = rss_kb()
print("after:  %7.0f requests/s, RSS %6d kB" % (rate1, rss1))
ratio = rate1 / rate0 if rate0 else 0
print("ratios: throughput %.2fx (goal >= 0.90x), RSS %+d kB, %.2fx (goal within 2048 kB)"
      % (ratio, rss1 - rss0, rss1 / rss0 if rss0 else 0))
sys.exit(0 if ratio >= 0.9 and rss1 - rss0 <= 2048 else 1)
PY
