"""The gateway as a child process, and a browser's page of it without the browser."""

import contextlib
import http.client
import json
import os
import pathlib
import re
import signal
import socket
import ssl
import subprocess
import threading
import time

import jsonschema
from harness.children import binary, spawn
from harness.daemon import QUIT_LIMIT, START_LIMIT
from harness.netsplit import NEAR
from harness.waiting import eventually

PORT = 63353
HOST = f"localhost:{PORT}"
ORIGIN = f"http://{HOST}"
OTHER_ADDRESS = "192.0.2.7"
API = json.loads(
    (pathlib.Path(__file__).parents[2] / "gateway/api/openapi.json").read_text(encoding="utf-8")
)


def as_json_schema(part):
    """Translates the one word of OpenAPI 3.0 that JSON Schema does not know: nullable."""
    if isinstance(part, list):
        return [as_json_schema(entry) for entry in part]
    if not isinstance(part, dict):
        return part
    schema = {name: as_json_schema(value) for name, value in part.items() if name != "nullable"}
    return {"anyOf": [schema, {"type": "null"}]} if part.get("nullable") else schema


SCHEMAS = as_json_schema(API["components"]["schemas"])


def validate(name, value):
    """Checks a value against a schema of the OpenAPI document."""
    root = {"$ref": f"#/components/schemas/{name}", "components": {"schemas": SCHEMAS}}
    jsonschema.Draft4Validator(root, format_checker=jsonschema.FormatChecker()).validate(value)


def described(method, path, status):
    """Returns the name of the schema of this answer, None for one without JSON. Fails without a
    description of this route and status."""
    for template, route in API["paths"].items():
        if re.fullmatch(re.sub(r"\{\w+\}", r"[^/]+", template), path.split("?")[0]):
            answer = route[method.lower()]["responses"].get(str(status))
            assert answer, f"{method} {path} answers {status}, which is not described"
            content = answer.get("content", {}).get("application/json")
            return content and content["schema"]["$ref"].split("/")[-1]
    raise AssertionError(f"{path} is not described")


class Answer:
    def __init__(self, response):
        self.status = response.status
        self.headers = response.headers
        self.body = response.read()

    def json(self):
        return json.loads(self.body)

    @property
    def code(self):
        return self.json()["error"]["code"]


class Page:
    """One page in a browser: its token and its lease."""

    def __init__(self, gateway, token=None):
        self.gateway = gateway
        self.token = token
        self.key = None

    def headers(self, method, **changes):
        headers = {"Host": self.gateway.host}
        if self.token:
            headers["Authorization"] = f"Bearer {self.token}"
        if method != "GET":
            headers["Origin"] = self.gateway.origin
            headers["Content-Type"] = "application/json"
        headers.update({name.replace("_", "-"): value for name, value in changes.items()})
        return {name: value for name, value in headers.items() if value is not None}

    def request(self, method, path, body=None, **changes):
        """Sends a request. Checks that the OpenAPI document describes the answer."""
        connection = self.gateway.connect()
        text = body if isinstance(body, (str, bytes, type(None))) else json.dumps(body)
        connection.request(method, path, text, self.headers(method, **changes))
        answer = Answer(connection.getresponse())
        connection.close()
        if path.startswith("/api/"):
            schema = described(method, path, answer.status)
            if schema:
                assert answer.headers["Content-Type"] == "application/json"
                validate(schema, answer.json())
        return answer

    def get(self, path, **changes):
        return self.request("GET", path, **changes)

    def post(self, path, body=None, **changes):
        return self.request("POST", "/api/v1/" + path, {} if body is None else body, **changes)

    def pair(self, code):
        """Returns the role."""
        answer = self.post("session", {"code": code})
        assert answer.status == 201, answer.body
        self.token = answer.json()["token"]
        return answer.json()["role"]

    def take_control(self, **members):
        answer = self.post("control", members)
        assert answer.status == 200, answer.body
        self.key = answer.json()["key"]
        return answer.json()

    def begin(self, path, **members):
        """Begins a job with the lease. Returns its id."""
        answer = self.post(path, {"lease": self.key, **members})
        assert answer.status == 202, answer.body
        return answer.json()["job"]["id"]

    def job(self, number):
        return self.get(f"/api/v1/jobs/{number}").json()

    def outcome(self, number, timeout=10):
        """Waits for the end of a job, and keeps control meanwhile."""

        def ended():
            if self.key:
                self.post("control", {"key": self.key})
            return self.job(number)["outcome"]

        return eventually(ended, timeout, f"the end of job {number}")

    def do(self, path, timeout=10, **members):
        return self.outcome(self.begin(path, **members), timeout)

    def state(self):
        return self.get("/api/v1/state").json()

    def gripper(self, number):
        return next(each for each in self.state()["grippers"] if each["id"] == number)

    def stream(self):
        return Stream(self)


class OtherMachineGateway:
    """The gateway as a page on the other machine reaches it. The gateway must listen there."""

    def __init__(self, machine):
        self.machine = machine
        self.host = f"{NEAR}:{PORT}"
        self.origin = f"http://{self.host}"

    def connect(self):
        connection = http.client.HTTPConnection(NEAR, PORT, timeout=10)
        connection.sock = self.machine.reach(PORT)
        return connection


class Stream:
    """A stream of server-sent events. It keeps all messages and checks their forms."""

    SCHEMAS = {"picture": "Picture", "change": "Change", "event": "Event", "job": "Job"}

    def __init__(self, page):
        self.connection = page.gateway.connect()
        self.connection.request("GET", "/api/v1/stream", headers=page.headers("GET"))
        # The connection forgets a socket that ends with its response.
        self.socket = self.connection.sock
        self.response = self.connection.getresponse()
        self.status = self.response.status
        self.messages = []
        self.has_ended = False
        self.changed = threading.Condition()
        if self.status == 200:
            assert self.response.headers["Content-Type"] == "text/event-stream"
            threading.Thread(target=self._read, daemon=True).start()

    def _read(self):
        try:
            kind = None
            for line in self.response:
                text = line.decode().rstrip("\n")
                if text.startswith("event: "):
                    kind = text[7:]
                elif text.startswith("data: "):
                    with self.changed:
                        self.messages.append((time.monotonic(), kind, json.loads(text[6:])))
                        self.changed.notify_all()
        except (OSError, ValueError):
            pass
        with self.changed:
            self.has_ended = True
            self.changed.notify_all()

    def wait_for(self, kind, wanted=lambda _: True, timeout=5.0, since=0):
        """Returns the first message of the kind that `wanted` accepts, from number `since` on."""
        deadline = time.monotonic() + timeout
        with self.changed:
            while True:
                for _, each, data in self.messages[since:]:
                    if each == kind and wanted(data):
                        return data
                assert not self.has_ended, "the stream has ended"
                left = deadline - time.monotonic()
                assert left > 0, f"no {kind} like this in {[m[1:] for m in self.messages[-5:]]}"
                self.changed.wait(left)

    def wait_for_end(self, timeout=5.0):
        eventually(lambda: self.has_ended, timeout, "the end of the stream")

    def validate(self):
        for _, kind, data in self.messages:
            validate(self.SCHEMAS[kind], data)

    def close(self):
        try:
            self.socket.shutdown(socket.SHUT_RDWR)
        except OSError:
            pass
        self.connection.close()


class Gateway:
    """The program as a child process. `inside` is a command that runs it, `environment` has
    variables for it."""

    def __init__(self, folder, *options, host=HOST, tls=None, config="/dev/null", inside=(),
                 environment=None):
        self.folder = pathlib.Path(folder)
        self.host = host
        self.tls = tls
        self.origin = ("https://" if tls else "http://") + host
        self.pair_socket = self.folder / "pair.sock"
        self.lines = []
        self._changed = threading.Condition()
        self.process = spawn(
            [*inside, binary("gripper-gateway"), "--config", str(config)]
            + ["--pair-socket", str(self.pair_socket), *map(str, options)],
            stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True,
            env={name: value for name, value in os.environ.items() if name != "JOURNAL_STREAM"}
            | (environment or {}),
        )
        self.pid = self.process.pid
        self._reader = threading.Thread(target=self._read, daemon=True)
        self._reader.start()

    def _read(self):
        for line in self.process.stderr:
            with self._changed:
                self.lines.append(line.rstrip("\n"))
                self._changed.notify_all()

    def wait_until_ready(self):
        self.wait_for_line("the page is at", timeout=START_LIMIT)
        return self

    def wait_for_line(self, text, since=0, timeout=5.0):
        deadline = time.monotonic() + timeout
        with self._changed:
            while True:
                for line in self.lines[since:]:
                    if text in line:
                        return line
                left = deadline - time.monotonic()
                assert left > 0, f"no line with {text!r} in {self.lines[since:]}"
                self._changed.wait(left)

    def connect(self):
        name, port = "127.0.0.1", PORT
        if self.tls:
            return http.client.HTTPSConnection(name, port, timeout=10, context=self.tls)
        return http.client.HTTPConnection(name, port, timeout=10)

    def pair_code(self, role):
        run = subprocess.run(
            [binary("gripper-gateway"), "pair", "--config", "/dev/null", "--role", role]
            + ["--pair-socket", str(self.pair_socket)],
            capture_output=True, text=True, timeout=10, check=True,
        )
        return re.search(r"#code=(\S+)", run.stdout)[1]

    def page(self, role=None):
        """Returns a page, paired with a role."""
        page = Page(self)
        if role:
            assert page.pair(self.pair_code(role)) == role
        return page

    def operator(self, role="operate"):
        """Returns a page that has control."""
        page = self.page(role)
        page.take_control(takeOver=True)
        return page

    def wait_for(self, wanted, timeout=10.0):
        """Waits for a state that `wanted` accepts, and returns it."""
        page = self.page()

        def look():
            state = page.state()
            return state if wanted(state) else None

        return eventually(look, timeout, lambda: page.state())

    def resident_kib(self, name="VmRSS:"):
        with open(f"/proc/{self.pid}/status", encoding="ascii") as status:
            return next(int(line.split()[1]) for line in status if line.startswith(name))

    def peak_kib(self):
        return self.resident_kib("VmHWM:")

    def cpu_seconds(self):
        with open(f"/proc/{self.pid}/stat", encoding="ascii") as stat:
            fields = stat.read().rsplit(")", 1)[1].split()
        return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")

    def finish(self):
        """Ends the gateway, which must end in time, with status 0."""
        if self.process.returncode is not None:
            return
        assert self.process.poll() is None, f"ended with {self.process.returncode}: {self.lines}"
        self.process.send_signal(signal.SIGTERM)
        status = self.process.wait(QUIT_LIMIT + 10)
        self._reader.join(5)
        assert status == 0, f"status {status}: {self.lines[-40:]}"

    def kill(self):
        if self.process.poll() is None:
            self.process.kill()
        self.process.wait()
        self._reader.join(5)
        self.process.stderr.close()
        self.process.stdout.close()


# A valid body of every route that commands, without the lease.
COMMANDS = {
    "grippers/9/activate": {},
    "grippers/9/deactivate": {},
    "grippers/9/move": {"position": 200},
    "grippers/9/stop": {},
    "grippers/9/release": {},
    "grippers/9/led": {"red": True, "green": True, "blue": True},
    "grippers/9/mode": {"mode": 1},
    "grippers/9/upgrade": {"serial": "SIM-1009"},
    "scan": {},
    # The last one: it takes the gripper away.
    "grippers/9/rename": {"serial": "SIM-1009", "newId": 3},
}
WITHOUT_LEASE = "grippers/9/stop"


def body(page, route):
    """Returns the body of a command with nothing wrong."""
    lease = {} if route == WITHOUT_LEASE else {"lease": page.key}
    return {**lease, **COMMANDS[route]}


@contextlib.contextmanager
def no_write(gateway, line):
    """Checks that the line carries only reads, and that no job has begun, within the block."""
    page = gateway.page()
    jobs = {job["id"] for job in page.state()["jobs"]}
    mark = line.mark()
    yield
    # Two visits later, a write of the last request would have been on the line.
    line.wait_until_polled(9, 2)
    assert writes(line, mark) == []
    assert {job["id"] for job in page.state()["jobs"]} <= jobs


def writes(line, since):
    """Returns the writes on a line, from request number `since` on."""
    return line.since(since, lambda request: not request.is_read())


def insecure_tls():
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_CLIENT)
    context.check_hostname = False
    context.verify_mode = ssl.CERT_NONE
    return context
