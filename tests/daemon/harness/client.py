"""A client of the text protocol."""

import socket
import struct
import time

PORT = 63352


class Client:
    def __init__(self, timeout=5.0):
        self.timeout = timeout
        self.socket = socket.create_connection(("127.0.0.1", PORT), timeout)
        self.socket.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()

    def send(self, data):
        self.socket.settimeout(self.timeout)
        self.socket.sendall(data.encode() if isinstance(data, str) else data)

    def receive(self, count, timeout=None):
        """Returns exactly `count` bytes."""
        return self._receive_while(lambda data: len(data) < count, timeout, lambda d: count - len(d))

    def receive_line(self, timeout=None):
        return self._receive_while(lambda data: not data.endswith(b"\n"), timeout, lambda _: 1)

    def _receive_while(self, unfinished, timeout, wanted):
        deadline = time.monotonic() + (self.timeout if timeout is None else timeout)
        data = b""
        while unfinished(data):
            left = deadline - time.monotonic()
            assert left > 0, f"received only {data!r}"
            self.socket.settimeout(left)
            try:
                part = self.socket.recv(wanted(data))
            except socket.timeout:
                continue
            assert part, f"the connection ended after {data!r}"
            data += part
        return data

    def receive_until_silent(self, quiet=0.2):
        """Returns all bytes up to a silence of `quiet` seconds."""
        data = b""
        self.socket.settimeout(quiet)
        while True:
            try:
                part = self.socket.recv(65536)
            except socket.timeout:
                return data
            if not part:
                return data
            data += part

    def receive_available(self):
        try:
            return self.socket.recv(65536, socket.MSG_DONTWAIT)
        except BlockingIOError:
            return b""

    def receive_to_end(self, timeout=None):
        """Returns all bytes until the daemon closes the connection."""
        data = b""
        self.socket.settimeout(self.timeout if timeout is None else timeout)
        while True:
            part = self.socket.recv(65536)
            if not part:
                return data
            data += part

    def ask(self, request, timeout=None):
        """Sends a GET with a line ending and returns the value of its reply."""
        self.send(request + "\n")
        line = self.receive_line(timeout).decode()
        name = request.split()[1].upper()
        assert line.startswith(name + " ") and line.endswith("\n"), line
        return line[len(name) + 1 : -1]

    def get(self, name, timeout=None):
        return self.ask("GET " + name, timeout)

    def set(self, pairs, timeout=None):
        """Sends a SET and returns "ack" or "nak"."""
        self.send(f"SET {pairs}\n")
        return self.receive(3, timeout).decode()

    def half_close(self):
        self.socket.shutdown(socket.SHUT_WR)

    def reset(self):
        """Closes the connection with a reset."""
        self.socket.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
        self.socket.close()

    def close(self):
        self.socket.close()
