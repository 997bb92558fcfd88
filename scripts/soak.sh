#!/usr/bin/env bash
# hxfd under a long mixed load, on a private dbus-daemon: callers that connect, request and
# leave (churn); a caller that opens 5000 sessions and leaves (hoarding); monitors that never
# read; steady normal callers. Prints hxfd's RSS every 30 s, then compares the soaked daemon
# with a fresh one and fails when it serves 10 callers at less than 0.9x the fresh daemon's
# requests/s, or when its RSS grew by more than 2 MB. Not part of the test command (it takes
# MINUTES; CI runs 3).
#
# Measured so that a busy 2-core machine does not decide the result:
# - Throughput: a second hxfd on its own dbus-daemon stays untouched until the end; then both
#   are measured in turns (7 rounds of 3 s each, after one unmeasured round) and the medians
#   are compared. A build elsewhere on the machine slows both alike.
# - RSS: the reference is taken after a warm-up of 6000 churn cycles, not on the cold daemon.
#   The core keeps the memory of the last 4096 retired clients, sessions and transactions out
#   of use (the handle quarantine: a stale handle must find nothing, never a newcomer), 3.5 MB
#   once full (heaptrack: 376 + 369 + 104 bytes each). It fills within the first 4100 cycles and
#   is bounded after, so the cold daemon's RSS would count it as growth; the warm-up fills it
#   and the check sees what grows with uptime. The cold RSS and the reserve are printed too.
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
fail() { echo "soak: $*" >&2; exit 2; }
source tests/support/private_bus.sh
source tests/support/await.sh
# start_broker NAME: a dbus-daemon on $work/NAME.bus and an hxfd on it; sets hxfd_pid.
start_broker() {
  write_bus_conf "$work/$1.conf" "$work/$1.bus"
  # Room for the churn: the stock session limits otherwise.
  sed -i 's|</busconfig>|<limit name="max_connections_per_user">100000</limit><limit name="max_completed_connections">100000</limit><limit name="max_incomplete_connections">10000</limit></busconfig>|' "$work/$1.conf"
  run_bus_daemon "$work/$1.conf" "$1"
  "$hxfd" --address "unix:path=$work/$1.bus" >"$work/$1.hxfd.out" 2>"$work/$1.hxfd.err" &
  hxfd_pid=$!
  pids+=($hxfd_pid)
  await_line "$work/$1.hxfd.err" 10 '^hxfd: serving org.hxf.Broker$'
}
start_broker soaked
soaked_pid=$hxfd_pid
start_broker fresh
fresh_pid=$hxfd_pid

"$python" - "unix:path=$work/soaked.bus" "$soaked_pid" "unix:path=$work/fresh.bus" "$fresh_pid" "$minutes" <<'PY'
import os, sys, time, statistics, multiprocessing, dbus

soaked, soaked_pid, fresh, fresh_pid = sys.argv[1], int(sys.argv[2]), sys.argv[3], int(sys.argv[4])
minutes = float(sys.argv[5])
address = soaked  # what the load's callers use
PROPS = dbus.Dictionary({"device_id": dbus.String("lamp-1", variant_level=1)}, signature="sv")
WARM_UP_CYCLES = 6000  # past the quarantine's 4096 of each kind, with room

def rss_kb(pid):
    with open("/proc/%d/status" % pid) as f:
        for line in f:
            if line.startswith("VmRSS:"):
                return int(line.split()[1])
    return 0

def broker(bus):
    return dbus.Interface(bus.get_object("org.hxf.Broker", "/org/hxf/Broker"), "org.hxf.Broker1")

def callers(addr):
    bus = dbus.bus.BusConnection(addr)
    n = int(bus.get_object("org.hxf.Broker", "/org/hxf/Broker").Get(
        "org.hxf.Broker1", "Callers", dbus_interface="org.freedesktop.DBus.Properties"))
    bus.close()
    return n

def request(b):
    # True when answered; an error (a time-out on a busy machine) is counted, never fatal.
    try:
        b.Request("lights", "get", PROPS, dbus.UInt32(2000))
        return True
    except dbus.DBusException:
        return False

def throughput_worker(addr, seconds, out):
    done = 0
    try:
        bus = dbus.bus.BusConnection(addr)
        b = broker(bus)
        deadline = time.time() + seconds
        while time.time() < deadline:
            done += request(b)
        bus.close()
    finally:
        out.put(done)

def throughput(addr, seconds=3, workers=10):
    out = multiprocessing.Queue()
    ps = [multiprocessing.Process(target=throughput_worker, args=(addr, seconds, out)) for _ in range(workers)]
    for p in ps: p.start()
    total = sum(out.get(timeout=seconds + 60) for _ in ps)
    for p in ps: p.join()
    return total / seconds

def settle(addr):
    # Every caller gone (reading a property makes none), then RSS after a breath.
    deadline = time.time() + 60
    while callers(addr) != 0 and time.time() < deadline:
        time.sleep(0.2)
    time.sleep(1)

def churn_cycle():
    bus = dbus.bus.BusConnection(address)
    request(broker(bus))
    bus.close()

def churn(stop):
    cycles = 0
    while not stop.is_set():
        churn_cycle()
        cycles += 1
    return cycles

def warm_up_worker(n, out):
    for _ in range(n):
        churn_cycle()
    out.put(n)

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
        try:
            b.GetDevices("lights", dbus.UInt32(2000))
        except dbus.DBusException:
            pass  # a time-out on a busy machine: the next round tries again
        request(b)
        n += 2
    bus.close()
    return n

def run(kind, stop, out):
    n = 0
    try:
        n = kind(stop)
    finally:
        out.put((kind.__name__, n))

# RSS is taken once the measuring callers have left, on both sides.
settle(soaked)
rate0 = throughput(soaked)
settle(soaked)
cold = rss_kb(soaked_pid)
print("fresh:  %7.0f requests/s, RSS %6d kB (cold)" % (rate0, cold), flush=True)
out = multiprocessing.Queue()
ps = [multiprocessing.Process(target=warm_up_worker, args=(WARM_UP_CYCLES // 4, out)) for _ in range(4)]
for p in ps: p.start()
sum(out.get(timeout=600) for _ in ps)
for p in ps: p.join()
settle(soaked)
rss0 = rss_kb(soaked_pid)
print("warm:   RSS %6d kB after %d churn cycles (+%d kB: the handle quarantine filled, bounded)"
      % (rss0, WARM_UP_CYCLES, rss0 - cold), flush=True)

stop = multiprocessing.Event()
out = multiprocessing.Queue()
kinds = [churn, churn, hoard, slow_monitor, slow_monitor, normal, normal]
ps = [multiprocessing.Process(target=run, args=(k, stop, out)) for k in kinds]
for p in ps: p.start()
start = time.time()
end = start + minutes * 60
samples = []
while time.time() < end:
    time.sleep(min(30, max(0, end - time.time())))
    samples.append(rss_kb(soaked_pid))
    print("  %5.1f min: RSS %6d kB, callers %d" % ((time.time() - start) / 60, samples[-1], callers(soaked)),
          flush=True)
stop.set()
counts = {}
for _ in ps:
    name, n = out.get(timeout=120)
    counts[name] = counts.get(name, 0) + n
for p in ps: p.join()
print("load:   %d churn cycles, %d hoarding rounds (5000 Subscribe calls each), %d slow monitors, %d normal calls"
      % (counts.get("churn", 0), counts.get("hoard", 0), counts.get("slow_monitor", 0),
         counts.get("normal", 0)), flush=True)
if counts.get("churn", 0) < 30000:
    print("        (fewer than the 30 000 churn cycles the goal is stated for: a slow or busy machine)", flush=True)
if len(samples) > 2:
    print("        RSS under load: %d kB at 1 min, %d kB at the end (%+d kB)"
          % (samples[1], samples[-1], samples[-1] - samples[1]), flush=True)

settle(soaked)
rss1 = rss_kb(soaked_pid)
# The soaked and the fresh daemon in turns, so that the machine's load weighs on both alike.
throughput(soaked, 1)
throughput(fresh, 1)
rates = {soaked: [], fresh: []}
for _ in range(7):
    for addr in (soaked, fresh):
        rates[addr].append(throughput(addr))
soaked_rate, fresh_rate = statistics.median(rates[soaked]), statistics.median(rates[fresh])
print("after:  %7.0f requests/s (median of %s), RSS %6d kB once every caller left"
      % (soaked_rate, " ".join("%.0f" % r for r in rates[soaked]), rss1))
print("fresh:  %7.0f requests/s (median of %s), a second hxfd started with the first"
      % (fresh_rate, " ".join("%.0f" % r for r in rates[fresh])))
ratio = soaked_rate / fresh_rate if fresh_rate else 0
print("ratios: throughput %.2fx the fresh daemon's (goal >= 0.90x; %.2fx its own start's), "
      "RSS %+d kB since the warm-up (goal within 2048 kB; %+d kB since cold)"
      % (ratio, soaked_rate / rate0 if rate0 else 0, rss1 - rss0, rss1 - cold))
sys.exit(0 if ratio >= 0.9 and rss1 - rss0 <= 2048 else 1)
PY
