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


def main():
    dbus.mainloop.glib.DBusGMainLoop(set_as_default=True)
    address, case = sys.argv[1], sys.argv[2]
    {"search": search, "notification": notification,
     "monitor-disconnect": monitor_disconnect}[case](address)


if __name__ == "__main__":
    main()
