#!/usr/bin/env python3
"""Prints the SSDP announcements heard on one interface, for the UPnP process tests.

Usage: ssdp_watch.py ADDRESS SECONDS
Joins 239.255.255.250:1900 on the interface with ADDRESS, prints "listening", then one line
"NTS USN" per NOTIFY (e.g. "ssdp:alive uuid:x::upnp:rootdevice") and ends after SECONDS.
It only listens: nothing is sent.
"""
import socket
import struct
import sys
import time

GROUP = "239.255.255.250"


def main():
    address = sys.argv[1]
    deadline = time.monotonic() + float(sys.argv[2])
    sock = socket.socket(socket.AF_INET, socket.SOCK_DGRAM, socket.IPPROTO_UDP)
    sock.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
    sock.bind((GROUP, 1900))
    sock.setsockopt(socket.IPPROTO_IP, socket.IP_ADD_MEMBERSHIP,
                    struct.pack("4s4s", socket.inet_aton(GROUP), socket.inet_aton(address)))
    print("listening", flush=True)
    while True:
        left = deadline - time.monotonic()
        if left <= 0:
            return
        sock.settimeout(left)
        try:
            data, _ = sock.recvfrom(65536)
        except socket.timeout:
            return
        lines = data.decode("utf-8", "replace").split("\r\n")
        if not lines[0].startswith("NOTIFY "):
            continue
        headers = {}
        for line in lines[1:]:
            name, colon, value = line.partition(":")
            if colon:
                headers[name.strip().upper()] = value.strip()
        print(headers.get("NTS", "-"), headers.get("USN", "-"), flush=True)


if __name__ == "__main__":
    main()
