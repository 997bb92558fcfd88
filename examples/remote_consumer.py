#!/usr/bin/python3
"""A consumer in another process and another language: finds lights through hxfd on D-Bus,
subscribes to them, dims the first one and prints the notifications that follow.

Needs Debian's python3-dbus and python3-gi, and a running hxfd (or its activation file).
Usage: remote_consumer.py [--address ADDRESS] [--brightness N]   (default: the session bus)
"""
import argparse
import sys

import dbus
import dbus.mainloop.glib
from gi.repository import GLib

BROKER = "org.hxf.Broker"


def text(value):
    """A D-Bus value as the hxf tool writes it (dbus.Boolean is an int underneath)."""
    if isinstance(value, dbus.Boolean):
        return "true" if value else "false"
    return str(value)


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--address", help="a D-Bus address (default: the session bus)")
    parser.add_argument("--brightness", type=int, default=30)
    args = parser.parse_args()

    dbus.mainloop.glib.DBusGMainLoop(set_as_default=True)
    bus = dbus.bus.BusConnection(args.address) if args.address else dbus.SessionBus()
    broker = dbus.Interface(bus.get_object(BROKER, "/org/hxf/Broker"), "org.hxf.Broker1")
    loop = GLib.MainLoop()
    found = []

    # Signals come to this connection only: hxfd addresses them to their owner.
    search_path = broker.Search("lights", dbus.UInt32(1000))
    bus.add_signal_receiver(lambda device: found.append(device), "DeviceFound",
                            "org.hxf.Search1", path=search_path)
    bus.add_signal_receiver(lambda reason: loop.quit(), "Finished", "org.hxf.Search1",
                            path=search_path)
    GLib.timeout_add_seconds(5, loop.quit)  # never wait for ever
    loop.run()
    for device in found:
        print("found %s (%s) at %s" % (device["device_id"], device["device_name"],
                                       device["address"]))
    if not found:
        print("no lights found", file=sys.stderr)
        return 1

    session_path = broker.Subscribe("lights")
    session = dbus.Interface(bus.get_object(BROKER, session_path), "org.hxf.Session1")
    notifications = []

    def on_notification(operation, properties, error):
        notifications.append(operation)
        values = ", ".join("%s=%s" % (k, text(v)) for k, v in sorted(properties.items()))
        print("notification %s: %s (error %d)" % (operation, values, error))
        loop.quit()

    bus.add_signal_receiver(on_notification, "Notification", "org.hxf.Session1",
                            path=session_path)
    target = found[0]["device_id"]
    try:
        result = session.Request("set", {"device_id": target,
                                         "brightness": dbus.Int64(args.brightness)},
                                 dbus.UInt32(2000))
    except dbus.DBusException as error:
        print("set refused: %s: %s" % (error.get_dbus_name(), error.get_dbus_message()),
              file=sys.stderr)
        return 1
    print("set answered: brightness=%s" % result["brightness"])
    if not notifications:
        GLib.timeout_add_seconds(5, loop.quit)
        loop.run()
    session.Close()
    return 0 if notifications else 1


if __name__ == "__main__":
    sys.exit(main())
