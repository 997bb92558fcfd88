#!/usr/bin/env python3
"""python3 -m http.server with byte ranges, for the UPnP audio tests' seek case.

Usage: range_http.py ADDRESS PORT DIRECTORY
Serves DIRECTORY on ADDRESS:PORT like http.server, and answers a request with one range
("Range: bytes=FIRST-[LAST]") with 206 and that part: a renderer seeks in a file served over
HTTP by asking for the part from the new position on (GStreamer's souphttpsrc does).
Prints "Serving HTTP on ADDRESS port PORT" once it listens, then a line per request.
"""
import http.server
import os
import re
import sys
from functools import partial


class RangeHandler(http.server.SimpleHTTPRequestHandler):
    def send_head(self):
        match = re.fullmatch(r"bytes=(\d+)-(\d*)", self.headers.get("Range", ""))
        path = self.translate_path(self.path)
        if match is None or not os.path.isfile(path):
            return super().send_head()
        size = os.path.getsize(path)
        first = int(match.group(1))
        last = min(int(match.group(2)), size - 1) if match.group(2) else size - 1
        if first >= size or first > last:
            self.send_response(416)
            self.send_header("Content-Range", "bytes */%d" % size)
            self.send_header("Content-Length", "0")
            self.end_headers()
            return None
        source = open(path, "rb")
        source.seek(first)
        self.send_response(206)
        self.send_header("Content-Type", self.guess_type(path))
        self.send_header("Accept-Ranges", "bytes")
        self.send_header("Content-Range", "bytes %d-%d/%d" % (first, last, size))
        self.send_header("Content-Length", str(last - first + 1))
        self.end_headers()
        self.remaining = last - first + 1
        return source

    def end_headers(self):
        if not self._headers_buffer or b"Accept-Ranges" not in b"".join(self._headers_buffer):
            self.send_header("Accept-Ranges", "bytes")
        super().end_headers()

    def copyfile(self, source, outputfile):
        # Without a range: all of it. A renderer that seeks again or stops closes the
        # connection: the rest is not sent.
        remaining = getattr(self, "remaining", None)
        self.remaining = None
        while remaining is None or remaining > 0:
            chunk = source.read(65536 if remaining is None else min(65536, remaining))
            if not chunk:
                return
            try:
                outputfile.write(chunk)
            except (BrokenPipeError, ConnectionResetError):
                return
            if remaining is not None:
                remaining -= len(chunk)


def main():
    address, port, directory = sys.argv[1], int(sys.argv[2]), sys.argv[3]
    handler = partial(RangeHandler, directory=directory)
    with http.server.ThreadingHTTPServer((address, port), handler) as server:
        print("Serving HTTP on %s port %d" % (address, port), flush=True)
        server.serve_forever()


if __name__ == "__main__":
    main()
