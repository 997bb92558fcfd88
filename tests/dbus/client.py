#!/usr/bin/python3
"""Real D-Bus clients of hxfd for the tests, with python3-dbus on a private bus.

Usage: client.py ADDRESS CASE. Prints what it saw, one line per fact; exits 1 on a failure.
Every wait is bounded by a GLib timeout.
"""
import sys
import time

import dbus
import dbus.mainloop.glib
from gi.repository import GLib

BROKER = "org.hxf.Broker"
PATH = "/org/hxf/Broker"


def connect(address):
    return dbus.bus.BusConnection(address)


def broker(bus):
    return dbus.Interface(bus.get_object(BROKER, PATH), "org.hxf.Broker1")


def run_loop(seconds, done):
    """Runs the main loop until done() is true or `seconds` pass; returns done()."""
    loop = GLib.MainLoop()
    deadline = time.monotonic() + seconds

    def check():
        if done() or time.monotonic() > deadline:
            loop.quit()
            return False
        return True

    GLib.timeout_add(20, check)
    loop.run()
    return done()


def search(address):
    bus = connect(address)
    seen, finished = [], []
    path = broker(bus).Search("lights", dbus.UInt32(1500))
    bus.add_signal_receiver(lambda d: seen.append(str(d["device_id"])), "DeviceFound",
                            "org.hxf.Search1", path=path)
    bus.add_signal_receiver(lambda r: finished.append(str(r)), "Finished", "org.hxf.Search1",
                            path=path)
    run_loop(5, lambda: finished)
    print("found " + " ".join(seen))
    print("finished " + " ".join(finished))


def notification(address):
    """The owner of a session hears of a change; a bystander that asks for every
    Notification signal hears nothing."""
    owner_bus, bystander_bus = connect(address), connect(address)
    heard, overheard = [], []
    session_path = broker(owner_bus).Subscribe("lights")
    owner_bus.add_signal_receiver(
        lambda op, props, err: heard.append("%s %s brightness=%s error=%d" % (
            op, props["device_id"], props.get("brightness"), err)),
        "Notification", "org.hxf.Session1", path=session_path)
    bystander_bus.add_signal_receiver(lambda *args: overheard.append(args), "Notification",
                                      "org.hxf.Session1")
    session = dbus.Interface(owner_bus.get_object(BROKER, session_path), "org.hxf.Session1")
    session.Request("set", {"device_id": "lamp-1", "brightness": dbus.Int64(25)},
                    dbus.UInt32(2000))
    run_loop(5, lambda: heard)
    run_loop(0.5, lambda: False)  # time for a stray copy to reach the bystander
    print("owner heard " + "; ".join(heard))
    print("bystander heard %d" % len(overheard))


def monitor_disconnect(address):
    """A caller subscribes and leaves the bus; the monitor sees its client go."""
    monitor_bus = connect(address)
    events = []
    monitor_bus.add_signal_receiver(
        lambda ts, kind, caller, service, op, tr, payload: events.append((str(kind), str(caller))),
        "Event", "org.hxf.Monitor1")
    broker(monitor_bus).Monitor()
    leaver = connect(address)
    name = leaver.get_unique_name()
    broker(leaver).Subscribe("lights")
    leaver.close()
    run_loop(5, lambda: ("client-gone", name) in events)
    print("monitor saw client-gone of the leaver: %s" % (("client-gone", name) in events))


def refused(label, call):
    """Prints LABEL: the error's name and message, or LABEL: served."""
    try:
        call()
        print("%s: served" % label)
    except dbus.DBusException as e:
        print("%s: %s: %s" % (label, e.get_dbus_name(), e.get_dbus_message()))


def limits(address):
    """Each per-caller quota and size limit, one past it, from a caller of its own (hxfd run
    with 2 sessions, 2 watches and 2 waiting calls per caller, names of 16 bytes, values of 32,
    requests of 200 bytes, searches of 10 s)."""
    sessions = broker(connect(address))
    for _ in range(2):
        sessions.Subscribe("lights")
    refused("third session", lambda: sessions.Subscribe("lights"))
    watches = broker(connect(address))
    watches.Listen("lights")
    watches.Search("audio", dbus.UInt32(10000))
    refused("third watch", lambda: watches.Listen("climate"))
    # radio-1 never answers: both calls wait (for 20 s) while the third is refused.
    waiting_bus = connect(address)
    waiting = broker(waiting_bus)
    answered = []
    for _ in range(2):
        waiting.Request("audio", "get", {"device_id": "radio-1"}, dbus.UInt32(20000),
                        reply_handler=answered.append, error_handler=answered.append)
    run_loop(0.3, lambda: False)  # both calls reach hxfd before the third
    refused("third waiting call", lambda: waiting.Request(
        "audio", "get", {"device_id": "radio-1"}, dbus.UInt32(20000)))
    sizes = broker(connect(address))
    refused("value of 33 bytes", lambda: sizes.Request(
        "lights", "set", {"device_id": "lamp-1", "name": "v" * 33}, dbus.UInt32(2000)))
    refused("request of 231 bytes", lambda: sizes.Request(
        "lights", "set", dict(("p%02d" % i, "v" * 30) for i in range(7)), dbus.UInt32(2000)))
    refused("property name of 17 bytes", lambda: sizes.Request(
        "lights", "get", {"d" * 17: "lamp-1"}, dbus.UInt32(2000)))
    refused("value of 32 bytes", lambda: sizes.Request(
        "lights", "get", {"device_id": "lamp-1", "x": "v" * 32}, dbus.UInt32(2000)))


def hit_and_run(address):
    """600 callers (beyond the stock 512 match rules of one connection), 200 each of Subscribe,
    Listen and Request, each sending its call and leaving without waiting for the answer."""
    calls = [("Subscribe", "s", ["lights"]), ("Listen", "s", ["lights"]),
             ("Request", "ssa{sv}u", ["lights", "get", {"device_id": "lamp-1"}, dbus.UInt32(2000)])]
    for i in range(600):
        member, signature, args = calls[i % 3]
        bus = connect(address)
        call = dbus.lowlevel.MethodCallMessage(BROKER, PATH, "org.hxf.Broker1", member)
        call.append(signature=signature, *args)
        bus.send_message(call)
        bus.flush()
        bus.close()
    print("600 callers left")


def many_users(address):
    """1000 callers at once within the stock per-user limit of 256 connections: 250 callers of
    each of 4 unprivileged users (nobody, daemon, bin and sys), each answered a request and
    staying on the bus until hxfd counts them all. Run as root (it switches the users; the bus
    drops callers whose user has no entry in the user database)."""
    import os
    import pwd
    children = []
    for user in ("nobody", "daemon", "bin", "sys"):
        uid, gid = pwd.getpwnam(user).pw_uid, pwd.getpwnam(user).pw_gid
        ready_r, ready_w = os.pipe()
        leave_r, leave_w = os.pipe()
        pid = os.fork()
        if pid == 0:
            os.close(ready_r)
            os.close(leave_w)
            for _, other_ready_r, other_leave_w in children:  # else a sibling's leave never ends
                os.close(other_ready_r)
                os.close(other_leave_w)
            code = 1
            try:
                os.setgroups([])
                os.setgid(gid)
                os.setuid(uid)
                buses = [connect(address) for _ in range(250)]
                answered = timed_out = 0
                for index, bus in enumerate(buses):
                    started = time.monotonic()
                    try:
                        answer = broker(bus).Request("lights", "get", {"device_id": "lamp-1"},
                                                     dbus.UInt32(5000), timeout=20)
                        answered += "brightness" in answer
                    except dbus.DBusException as e:
                        # hxfd's own deadline answers a request the core answers too late (a
                        # sanitizer build on a saturated CPU, about one in a thousand here:
                        # RELIABILITY.md).
                        if e.get_dbus_name() != "org.hxf.Error.TimedOut":
                            raise RuntimeError("caller %d of 250, after %.1f s: %s" % (
                                index + 1, time.monotonic() - started, e)) from e
                        answered += 1
                        timed_out += 1
                os.write(ready_w, b"%d %d\n" % (answered, timed_out))
                os.read(leave_r, 1)  # until the parent has counted the callers (or is gone)
                code = 0
            except Exception as e:  # pylint: disable=broad-except
                print("user %s: %s" % (user, e), file=sys.stderr, flush=True)
            finally:
                os._exit(code)
        os.close(ready_w)
        os.close(leave_r)
        children.append((pid, ready_r, leave_w))
    counts = [(os.read(ready_r, 32).split() or [b"0", b"0"]) for _, ready_r, _ in children]
    print("answered %d" % sum(int(answered) for answered, _ in counts))
    print("timed out %d" % sum(int(timed_out) for _, timed_out in counts))
    root = connect(address)
    held = root.get_object(BROKER, PATH).Get("org.hxf.Broker1", "Callers",
                                             dbus_interface="org.freedesktop.DBus.Properties")
    print("callers held %d" % held)
    for pid, _, leave_w in children:
        os.close(leave_w)
        os.waitpid(pid, 0)


def main():
    dbus.mainloop.glib.DBusGMainLoop(set_as_default=True)
    address, case = sys.argv[1], sys.argv[2]
    {"search": search, "notification": notification,
     "monitor-disconnect": monitor_disconnect, "limits": limits,
     "hit-and-run": hit_and_run, "many-users": many_users}[case](address)


if __name__ == "__main__":
    main()
