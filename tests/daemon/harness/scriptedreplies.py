"""A scripted daemon that misbehaves: its replies are split, late, reordered, missing, refused or mixed
with garbage, and its connections end at any time.

It notes what it does, so that a test can judge each result of a client.
"""

import asyncio
import random
import threading

TEXTS = {"SNU": "ABC-007", "FWV": "TA3-1.6.14", "DRI": "RUNNING", "SID": "[9]", "VER": "MZV-2.0.0", "STA": "3"}


class ScriptedReplies:
    """Every batch of GETs has a number, which is its value of NCY."""

    def __init__(self, seed):
        self.random = random.Random(seed)
        self.batches = 0  # received so far
        self.sets = {}  # SET line -> the replies that were planned for it; all but SID
        self.failures = []
        self._loop = asyncio.new_event_loop()
        self._ready = threading.Event()
        self._thread = threading.Thread(target=self._serve, daemon=True)

    def __enter__(self):
        self._thread.start()
        assert self._ready.wait(5)
        return self

    def __exit__(self, *_):
        self._loop.call_soon_threadsafe(self._loop.stop)
        self._thread.join(5)
        assert not self._thread.is_alive()

    def _serve(self):
        listening = self._loop.create_server(lambda: _Peer(self), "127.0.0.1", 0)
        server = self._loop.run_until_complete(listening)
        self.port = server.sockets[0].getsockname()[1]
        self._ready.set()
        self._loop.run_forever()
        server.close()
        self._loop.run_until_complete(server.wait_closed())
        self._loop.run_until_complete(self._loop.shutdown_asyncgens())
        self._loop.close()


class _Peer(asyncio.Protocol):
    """One connection. It never closes its side by itself, except by plan."""

    def __init__(self, script):
        self.script = script
        self.random = script.random
        self.received = b""

    def connection_made(self, transport):
        self.transport = transport

    def data_received(self, data):
        self.received += data
        if not self.received.endswith(b"\n"):
            return
        lines, self.received = self.received.decode().splitlines(), b""
        if any(line.startswith("SET ") for line in lines):
            if len(lines) != 1:
                self.script.failures.append(f"a SET beside other requests: {lines}")
            self._reply_to_set(lines[0])
        else:
            self.script.batches += 1
            self._plan([self._line(line[4:]) for line in lines])

    def _line(self, name):
        number = str(self.script.batches) if name == "NCY" else "0"
        return f"{name} {TEXTS.get(name, number)}\n".encode()

    def _reply_to_set(self, line):
        reply = b"nak" if self.random.random() < 0.15 else b"ack"
        if not line.startswith("SET SID "):
            self.script.sets.setdefault(line, []).append(reply)
        self._plan([reply])

    def _plan(self, replies):
        plans = [self._plain] * 10 + [self._split] * 4 + [self._late, self._reordered, self._partial]
        plans += [self._missing, self._closed, self._reset, self._garbage, self._doubled, self._trickle]
        self.random.choice(plans)(replies)

    def _plain(self, replies):
        self._write(b"".join(replies))

    def _split(self, replies):
        data = b"".join(replies)
        at = 0.0
        while data:
            count = self.random.randint(1, len(data))
            self._write(data[:count], at)
            data = data[count:]
            at += self.random.choice([0, 0, 0.001, 0.003])

    def _late(self, replies):
        self._write(b"".join(replies), self.random.uniform(0.01, 0.08))

    def _reordered(self, replies):
        self.random.shuffle(replies)
        self._plain(replies)

    def _partial(self, replies):
        data = b"".join(replies)
        self._write(data[: self.random.randrange(len(data))])

    def _missing(self, replies):
        replies.pop(self.random.randrange(len(replies)))
        self._plain(replies)

    def _closed(self, replies):
        data = b"".join(replies)
        self._write(data[: self.random.randrange(len(data) + 1)])
        self._loop().call_later(self.random.choice([0, 0.002]), self.transport.close)

    def _reset(self, replies):
        data = b"".join(replies)
        self._write(data[: self.random.randrange(len(data) + 1)])
        self.transport.abort()

    def _garbage(self, replies):
        # Bytes that are no part of a value: a client cannot see a changed digit.
        kinds = [b"\xff\xfe", b"\0", b"ack", b"nak", b"GET ", b"\n", b"XYZ 1\n", b"x" * 5000, b"?"]
        replies.insert(self.random.randrange(len(replies) + 1), self.random.choice(kinds))
        self._plain(replies)

    def _doubled(self, replies):
        data = b"".join(replies)
        self._write(data + data[-self.random.randint(1, len(data)) :])

    def _trickle(self, replies):
        for number, byte in enumerate(b"".join(replies)):
            self._write(bytes([byte]), number * 0.002)

    def _write(self, data, after=0.0):
        if after:
            self._loop().call_later(after, self._write, data)
        elif not self.transport.is_closing():
            self.transport.write(data)

    @staticmethod
    def _loop():
        return asyncio.get_running_loop()
