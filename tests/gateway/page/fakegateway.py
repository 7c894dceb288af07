"""A gateway whose answers the test sets, for states of the page that are hard to reach with real parts."""

import copy
import http.server
import json
import pathlib
import queue
import threading
import time

PAGE = pathlib.Path(__file__).resolve().parents[3] / "gateway" / "page"
POLICY = (
    "default-src 'none'; script-src 'self'; style-src 'self'; connect-src 'self'; img-src 'self'; "
    "base-uri 'none'; form-action 'none'; frame-ancestors 'none'"
)
TYPES = {".html": "text/html; charset=utf-8", ".js": "text/javascript", ".css": "text/css", ".svg": "image/svg+xml"}
AT = "2024-05-17T09:30:00.125+02:00"


def gripper(slave_id=9, **values):
    vacuum = values.get("kind") == "vacuum"
    return {
        "id": slave_id, "present": True, "stale": False, "missingSeconds": None, "valueAgeSeconds": 0.04,
        "family": "TE" if vacuum else "TA", "kind": "fingers",
        "firmware": "TE1-2.0.2" if vacuum else "TA3-1.6.14", "serial": f"SIM-{1000 + slave_id}", "year": 2024,
        "status": "active", "active": True, "moving": False, "goTo": True, "mode": 0,
        "position": 120, "request": 120, "echo": 120, "speed": 64, "force": 40, "current": 8,
        "object": "reached", "vacuum": "held" if vacuum else None, "fault": None,
        "led": {"auto": True, "red": False, "green": False, "blue": False},
        "cycles": 4711, "pumpSeconds": 3600 if vacuum else None, "pumpStarts": 816 if vacuum else None,
        "commandedByOther": False, "otherCommandAgeSeconds": None, **values,
    }


def job(number=1, action="upgrade", slave_id=9, **values):
    return {
        "id": number, "action": action, "gripper": slave_id, "state": "running", "stage": None, "role": "maintain",
        "started": AT, "ageSeconds": 0.0, "elapsedSeconds": 0.0, "outcome": None, **values,
    }


class FakeGateway:
    """Serves the page and a picture. `requests` has the POSTs and DELETEs: method, route, body."""

    def __init__(self):
        self.role = None
        self.requests = []
        self.refusal = None
        self.hold = threading.Event()
        self.hold.set()
        self.history = None
        self._started = time.monotonic()
        self.streams = []
        self._jobs = 0
        self._lease = 0
        self._sound = threading.Event()
        self._sound.set()
        self._is_forgetful = False
        self.picture = {
            "gateway": {"version": "1.0.0", "name": "cell-7", "started": AT, "instance": "a"},
            "line": {"state": "connected", "text": "RUNNING", "sinceSeconds": 60.0, "since": AT,
                     "valueAgeSeconds": 0.04, "stale": False, "muted": False, "version": "MZV-2.0.0"},
            "grippers": [gripper(2, kind="vacuum"), gripper(9)],
            "control": None, "jobs": [], "events": [],
        }
        self._server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), self._handler())
        self._server.daemon_threads = True
        self._ended = threading.Event()
        self._threads = [threading.Thread(target=self._server.serve_forever, args=(0.05,)),
                         threading.Thread(target=self._live)]
        for thread in self._threads:
            thread.start()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self._ended.set()
        self.hold.set()
        self.unmute()
        self.drop_streams()
        self._server.shutdown()
        for thread in self._threads:
            thread.join()
        self._server.server_close()

    @property
    def url(self):
        return f"http://127.0.0.1:{self._server.server_address[1]}/"

    @property
    def clock(self):
        return time.monotonic() - self._started + 700

    def whole(self):
        return {"clock": self.clock, "at": AT, **copy.deepcopy(self.picture), "you": {
            "role": self.role or "view", "paired": self.role is not None,
            "expiresInSeconds": 28800.0 if self.role else None}}

    def change(self, slave_id=None, line=None, **values):
        """Changes a gripper or the line, and sends it."""
        self.picture["line"].update(line or {})
        changed = [one for one in self.picture["grippers"] if one["id"] == slave_id]
        for one in changed:
            one.update(values)
        self.send("change", {"clock": self.clock, "at": AT, "line": self.picture["line"], "grippers": changed,
                             "removed": [], "control": self.picture["control"]})

    def send(self, event, value):
        text = f"event: {event}\ndata: {json.dumps(value)}\n\n".encode()
        for stream in list(self.streams):
            stream.put(text)

    def send_job(self, value):
        jobs = self.picture["jobs"]
        jobs[:] = [one for one in jobs if one["id"] != value["id"]] + [value]
        self.send("job", value)

    def drop_streams(self):
        for stream in list(self.streams):
            stream.put(None)

    def mute(self):
        """The stream stays open, without a sign of life. New streams do not begin."""
        self._sound.clear()

    def unmute(self):
        self._sound.set()

    def forget_lease(self):
        """Refuses renewals, before the picture shows why."""
        self._is_forgetful = True

    def commands(self):
        """The requests except those about the session and the lease."""
        return [one for one in self.requests if one[1] not in ("session", "control")]

    def _live(self):
        while not self._ended.wait(0.5):
            if self._sound.is_set():
                self.change()

    def _answer(self, method, route, body):
        if route == "session" and method == "POST":
            if body["code"] != "GOOD":
                return 401, {"error": {"code": "wrong-code", "text": "wrong"}}
            self.role = "maintain"
            return 201, {"token": "t", "role": "maintain", "expiresInSeconds": 28800.0}
        if method == "DELETE":
            self.picture["control"] = None
            return 204, None
        if route == "control":
            if "key" in body and (self._is_forgetful or (self.picture["control"] or {}).get("number") != self._lease):
                return 409, {"error": {"code": "no-control", "text": "ended", "control": None}}
            if "key" not in body:
                self._lease += 1
                self.picture["control"] = {"number": self._lease, "role": "maintain", "peer": "127.0.0.1",
                                           "since": AT, "sinceSeconds": 0.0, "expiresInSeconds": 5.0}
                self.change()
            return 200, {"number": self._lease, "key": "k", "expiresInSeconds": 5.0}
        self.hold.wait(10)
        if self.refusal:
            return self.refusal
        self._jobs += 1
        words = route.split("/")
        begun = job(self._jobs, words[-1], int(words[1]) if len(words) > 1 else None)
        self.picture["jobs"].append(begun)
        return 202, {"job": begun}

    def _handler(owner):
        class Handler(http.server.BaseHTTPRequestHandler):
            protocol_version = "HTTP/1.1"

            def do_GET(self):
                path = self.path.split("?")[0]
                if path == "/api/v1/stream":
                    self._stream()
                elif path == "/api/v1/history":
                    self._send(200, json.dumps(owner.history or {
                        "gripper": 9, "clock": owner.clock, "at": AT, "seconds": 600, "t": [], "position": [],
                        "request": [], "current": []}).encode(), "application/json")
                else:
                    self._file(PAGE / (path.lstrip("/") or "index.html"))

            def do_POST(self):
                route = self.path.removeprefix("/api/v1/")
                body = json.loads(self.rfile.read(int(self.headers.get("Content-Length", 0))) or "{}")
                owner.requests.append((self.command, route, body))
                status, answer = owner._answer(self.command, route, body)
                self._send(status, b"" if answer is None else json.dumps(answer).encode(), "application/json")

            do_DELETE = do_POST

            def _file(self, file):
                if not file.is_file():
                    self._send(404, b"", "text/plain")
                    return
                self._send(200, file.read_bytes(), TYPES[file.suffix])

            def _send(self, status, content, kind):
                self.send_response(status)
                self.send_header("Content-Type", kind)
                self.send_header("Content-Length", str(len(content)))
                self.send_header("Content-Security-Policy", POLICY)
                self.send_header("Cache-Control", "no-store")
                self.end_headers()
                self.wfile.write(content)

            def _stream(self):
                messages = queue.Queue()
                owner._sound.wait()
                self.close_connection = True
                self.send_response(200)
                self.send_header("Content-Type", "text/event-stream")
                self.send_header("Connection", "close")
                self.end_headers()
                self.wfile.write(f"event: picture\ndata: {json.dumps(owner.whole())}\n\n".encode())
                owner.streams.append(messages)
                try:
                    while (text := messages.get()) is not None:
                        self.wfile.write(text)
                except OSError:
                    """The page has gone."""
                owner.streams.remove(messages)

            def log_message(self, *_):
                """Prints no requests into the output of the test."""

        return Handler
