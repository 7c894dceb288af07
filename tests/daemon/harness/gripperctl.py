"""The command-line client as a child process, and a scripted daemon for it."""

import contextlib
import json
import re
import socket
import subprocess
import threading

from .children import binary, spawn

HOST = "127.0.0.1"
# How a run ends.
DONE, REFUSED, USAGE, NO_CONNECTION, TIMED_OUT, NO_GRIPPER, LOCAL, INTERRUPTED = *range(7), 130


def ctl(*words, timeout=40, **options):
    """Runs it to its end; standard output and error are text."""
    return subprocess.run(
        [binary("gripperctl"), *map(str, words)],
        stdin=subprocess.DEVNULL, capture_output=True, text=True, timeout=timeout, **options,
    )


def well(*words, **options):
    """Standard output of a run that has to end well and tell no problem."""
    run = ctl(*words, **options)
    assert run.returncode == DONE, run
    assert "gripperctl:" not in run.stderr, run.stderr
    return run.stdout


def badly(code, *words, **options):
    """What a run tells that has to end with this exit code."""
    run = ctl(*words, **options)
    assert run.returncode == code, run
    lines = [line for line in run.stderr.splitlines() if line.startswith("gripperctl: ")]
    assert len(lines) == 1, run.stderr
    return lines[0]


def as_json(*words, **options):
    return json.loads(well("--json", *words, **options))


def start_ctl(*words, **options):
    options.setdefault("stdout", subprocess.PIPE)
    return spawn(
        [binary("gripperctl"), *map(str, words)],
        stdin=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True, **options,
    )


def run_to_end(process, timeout=15):
    """(exit code, standard output, standard error)."""
    out, error = process.communicate(timeout=timeout)
    return process.returncode, out, error


class ScriptedDaemon:
    """Answers every connection by `answer(request)`: bytes, or None for no answer at all.

    What it was asked stands in `requests`, in the order of its coming.
    """

    VALUES = {"SID": "[9]", "DRI": "RUNNING", "VER": "0", "UPG": "0", "FWV": "TA3-1.0.0"}
    VALUES |= {"STA": "3", "FLT": "00", "SNU": "ABC-1", "PYE": "2024"}

    def __init__(self, answer=None, **values):
        self.values = {**self.VALUES, **values}
        self.answer = answer or self.usual
        self.requests = []
        self.changed = threading.Condition()
        self.listener = socket.create_server((HOST, 0))
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
        if request.startswith("GET "):
            name = request[4:]
            return f"{name} {self.values.get(name, '0')}\n".encode()
        return b"ack"

    def drop(self):
        """Ends the present connections; a client may reconnect meanwhile."""
        for client in list(self.sockets):
            with contextlib.suppress(OSError):
                client.shutdown(socket.SHUT_RDWR)

    def wait_for(self, pattern, timeout=5.0):
        """Returns when a request like that has come; all requests so far."""
        expression = re.compile(pattern)
        with self.changed:
            came = self.changed.wait_for(
                lambda: any(expression.fullmatch(r) for r in self.requests), timeout
            )
            assert came, f"no {pattern} in {self.requests}"
            return list(self.requests)

    def sets(self):
        with self.changed:
            return [r[4:] for r in self.requests if r.startswith("SET ")]

    def _accept(self):
        while True:
            try:
                client, _ = self.listener.accept()
            except OSError:
                return
            self.sockets.append(client)
            threading.Thread(target=self._serve, args=[client], daemon=True).start()

    def _serve(self, client):
        # A client may end at any moment.
        with contextlib.suppress(OSError), client, client.makefile("rb") as lines:
            for line in lines:
                request = line.decode().strip()
                with self.changed:
                    self.requests.append(request)
                    self.changed.notify_all()
                answer = self.answer(request)
                if answer is not None:
                    client.sendall(answer)
