"""gripperctl as a child process, and a scripted daemon for it."""

import contextlib
import json
import re
import socket
import subprocess
import threading

from .children import binary, spawn

HOST = "127.0.0.1"
# The exit codes.
DONE, REFUSED, USAGE, NO_CONNECTION, TIMED_OUT, NO_GRIPPER, LOCAL, INTERRUPTED = *range(7), 130


def ctl(*words, timeout=40, **options):
    """Runs gripperctl to its end; standard output and error are text."""
    return subprocess.run(
        [binary("gripperctl"), *map(str, words)],
        stdin=subprocess.DEVNULL, capture_output=True, text=True, timeout=timeout, **options,
    )


def succeed(*words, **options):
    """Runs gripperctl, which must succeed and report no problem. Returns its standard output."""
    run = ctl(*words, **options)
    assert run.returncode == DONE, run
    assert "gripperctl:" not in run.stderr, run.stderr
    return run.stdout


def fail(code, *words, **options):
    """Runs gripperctl, which must end with this exit code. Returns its one error line."""
    run = ctl(*words, **options)
    assert run.returncode == code, run
    lines = [line for line in run.stderr.splitlines() if line.startswith("gripperctl: ")]
    assert len(lines) == 1, run.stderr
    return lines[0]


def as_json(*words, **options):
    return json.loads(succeed("--json", *words, **options))


def start_ctl(*words, **options):
    options.setdefault("stdout", subprocess.PIPE)
    return spawn(
        [binary("gripperctl"), *map(str, words)],
        stdin=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True, **options,
    )


def run_to_end(process, timeout=15):
    """Returns (exit code, standard output, standard error)."""
    out, error = process.communicate(timeout=timeout)
    return process.returncode, out, error


class ScriptedDaemon:
    """Answers each request with `answer(request)`: bytes, or None for no answer.

    By default it answers a GET from `values` and a SET with "ack". `changes` maps a request to the
    values that apply after it. The requests in `refused` get a "nak". `requests` keeps all requests.
    """

    VALUES = {"SID": "[9]", "DRI": "RUNNING", "VER": "0", "UPG": "0", "FWV": "TA3-1.0.0"}
    VALUES |= {"STA": "3", "FLT": "00", "SNU": "ABC-1", "PYE": "2024"}

    def __init__(self, answer=None, changes=None, refused=(), port=0, **values):
        self.values = {**self.VALUES, **values}
        self.changes = changes or {}
        self.refused = refused
        self.answer = answer or self.usual
        self.requests = []
        self.changed = threading.Condition()
        self.listener = socket.create_server((HOST, port))
        self.host = f"{HOST}:{self.listener.getsockname()[1]}"
        self.sockets = []
        threading.Thread(target=self._accept, daemon=True).start()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.drop()
        self.listener.shutdown(socket.SHUT_RDWR)
        self.listener.close()

    def usual(self, request):
        self.values.update(self.changes.get(request, {}))
        if request in self.refused:
            return b"nak"
        if request.startswith("GET "):
            name = request[4:]
            return f"{name} {self.values.get(name, '0')}\n".encode()
        return b"ack"

    def drop(self):
        """Closes the present connections; a client may reconnect meanwhile."""
        for client in list(self.sockets):
            with contextlib.suppress(OSError):
                client.shutdown(socket.SHUT_RDWR)

    def wait_for(self, pattern, timeout=5.0):
        """Waits for a request that matches the pattern. Returns all requests so far."""
        expression = re.compile(pattern)
        with self.changed:
            has_arrived = self.changed.wait_for(
                lambda: any(expression.fullmatch(r) for r in self.requests), timeout
            )
            assert has_arrived, f"no {pattern} in {self.requests}"
            return list(self.requests)

    def wait_for_times(self, request, times, timeout=5.0):
        """Waits until this request has come this many times from now on."""
        with self.changed:
            begin = self.requests.count(request)
            assert self.changed.wait_for(lambda: self.requests.count(request) >= begin + times, timeout)

    def sets(self):
        with self.changed:
            return [r[4:] for r in self.requests if r.startswith("SET ")]

    def _accept(self):
        while True:
            try:
                client, _ = self.listener.accept()
            except OSError:
                return
            # Each reply is a packet of its own.
            client.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
            self.sockets.append(client)
            threading.Thread(target=self._serve, args=[client], daemon=True).start()

    def _serve(self, client):
        # The client may close its connection at any moment.
        with contextlib.suppress(OSError), client, client.makefile("rb") as lines:
            for line in lines:
                request = line.decode().strip()
                with self.changed:
                    self.requests.append(request)
                    self.changed.notify_all()
                answer = self.answer(request)
                if answer is not None:
                    client.sendall(answer)
