"""Viewers of the stream in a process of their own, so that their reading delays nothing in a test's interpreter.

As a program, this module is the viewers. Each line of its input is their number from then on.
"""

import os
import selectors
import socket
import subprocess
import sys

from gatewayrig import HOST, PORT
from harness.children import spawn

REQUEST = f"GET /api/v1/stream HTTP/1.1\r\nHost: {HOST}\r\n\r\n".encode()
PICTURE = b"event: picture\n"


class Viewers:
    """There are none at first."""

    def __enter__(self):
        self._process = spawn(
            [sys.executable, "-B", __file__],
            env={**os.environ, "PYTHONPATH": os.pathsep.join(sys.path)},
            stdin=subprocess.PIPE,
            stdout=subprocess.PIPE,
            text=True,
        )
        return self

    def __exit__(self, *_):
        with self._process:
            self._process.communicate(timeout=10)
        assert self._process.returncode == 0, "a stream has ended"

    def become(self, count):
        """Returns when each viewer has its picture."""
        self._process.stdin.write(f"{count}\n")
        self._process.stdin.flush()
        assert self._process.stdout.readline() == "ready\n", "a stream has ended"


class Streams:
    def __init__(self):
        self._ready = selectors.DefaultSelector()
        self._ready.register(sys.stdin, selectors.EVENT_READ)
        self._begins = {}

    def run(self):
        while True:
            for key, _ in self._ready.select():
                if key.fileobj is not sys.stdin:
                    self._read(key.fileobj)
                elif line := sys.stdin.readline():
                    self._become(int(line))
                    # The other events are those of former viewers.
                    break
                else:
                    return

    def _become(self, count):
        for stream in [key.fileobj for key in self._ready.get_map().values() if key.fileobj is not sys.stdin]:
            self._ready.unregister(stream)
            stream.close()
        self._begins = {self._opened(): b"" for _ in range(count)}
        self._report()

    def _opened(self):
        stream = socket.create_connection(("127.0.0.1", PORT), 5)
        stream.sendall(REQUEST)
        self._ready.register(stream, selectors.EVENT_READ)
        return stream

    def _read(self, stream):
        data = stream.recv(65536)
        if not data:
            sys.exit("a stream has ended")
        if stream in self._begins:
            self._begins[stream] += data
            if PICTURE in self._begins[stream]:
                del self._begins[stream]
                self._report()

    def _report(self):
        if not self._begins:
            print("ready", flush=True)


if __name__ == "__main__":
    # Real viewers are other machines, which take no processor of the gateway's machine.
    os.nice(19)
    Streams().run()
