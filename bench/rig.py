"""The measured programs and the measuring programs: child processes that end with this process."""

import ctypes
import json
import os
import pathlib
import queue
import resource
import shutil
import signal
import socket
import subprocess
import tempfile
import threading
import time

DAEMON_PORT = 63352
REDIS_PORT = 6379
ECHO_PORT = 7007
ECHO_WITHOUT_GLIB_PORT = 7008
PR_SET_PDEATHSIG = 1
POSITION = 120

_libc = ctypes.CDLL(None)


class Rig:
    """Starts programs, and ends all of them when it closes."""

    def __init__(self, programs, own_programs):
        self.programs = pathlib.Path(programs)
        self.own_programs = pathlib.Path(own_programs)

    def __enter__(self):
        self.work = pathlib.Path(tempfile.mkdtemp(prefix="gripperd-bench-"))
        self.children = []
        _, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
        resource.setrlimit(resource.RLIMIT_NOFILE, (hard, hard))
        return self

    def __exit__(self, *_):
        for child in reversed(self.children):
            end(child)
        shutil.rmtree(self.work)

    def spawn(self, arguments, **options):
        options.setdefault("stdin", subprocess.DEVNULL)
        options.setdefault("stdout", subprocess.DEVNULL)
        options.setdefault("stderr", subprocess.DEVNULL)
        child = subprocess.Popen(
            [str(argument) for argument in arguments],
            cwd=self.work,
            # Only this process handles Ctrl-C. It then ends the children, the latest first.
            start_new_session=True,
            preexec_fn=lambda: _libc.prctl(PR_SET_PDEATHSIG, signal.SIGKILL),
            **options,
        )
        self.children.append(child)
        return child

    def simulator(self, *grippers):
        return Simulator(self, grippers)

    def start_daemon(self):
        return self.spawn([self.programs / "gripperd"])

    def daemon(self):
        child = self.start_daemon()
        wait_until_listening(DAEMON_PORT, child)
        return child

    def daemon_with_value(self):
        """Starts a daemon that serves POSITION of its gripper."""
        child = self.daemon()
        wait_until_served("POS", str(POSITION))
        return child

    def redis(self):
        child = self.spawn(
            ["redis-server", "--port", REDIS_PORT, "--bind", "127.0.0.1", "--save", ""]
            + ["--appendonly", "no", "--maxclients", "20000", "--tcp-backlog", "4096"],
            # Both names belong to one program. The package redis-tools contains only this name.
            executable="/usr/bin/redis-check-rdb",
        )
        wait_until_listening(REDIS_PORT, child)
        with Client(REDIS_PORT) as client:
            answer = client.ask(f"SET POS {POSITION}")
            assert answer == "+OK\r\n", answer
        return child

    def echo(self, port=ECHO_PORT, **variables):
        reply = f"POS {POSITION}\n"
        program = self.own_programs / "bench-qt-echo"
        child = self.spawn([program, port, reply], env={**os.environ, **variables})
        wait_until_listening(port, child)
        return child

    def echo_without_glib(self):
        """Starts an echo server with the same event loop as the daemon, without GLib."""
        return self.echo(ECHO_WITHOUT_GLIB_PORT, QT_NO_GLIB="1")

    def load(self, mode, port, request, reply, **options):
        """Runs the load program and returns its figures."""
        child = self.start_load(mode, port, request, reply, **options)
        text, errors = child.communicate()
        return _parse_figures(text, errors)

    def start_load(self, mode, port, request, reply, **options):
        words = [self.own_programs / "bench-load", mode, "--port", port]
        words += ["--request", request, "--reply", reply]
        for name, value in options.items():
            words += ["--" + name.replace("_", "-"), value]
        return self.spawn(
            words,
            stdin=subprocess.PIPE,
            stdout=subprocess.PIPE,
            stderr=subprocess.PIPE,
            text=True,
        )

    def hold(self, clients, request, reply, **options):
        return HeldClients(self.start_load("hold", DAEMON_PORT, request, reply, clients=clients, **options))


def _parse_figures(text, errors):
    assert text, f"the load program says: {errors.strip()}"
    return json.loads(text)


class HeldClients:
    """Clients that send one request and stay connected."""

    def __init__(self, child):
        self.child = child

    def __enter__(self):
        line = self.child.stdout.readline()
        self.result = _parse_figures(line, "" if line else self.child.stderr.read())
        return self

    def __exit__(self, *_):
        self.child.communicate()


def end(child):
    if child.poll() is None:
        child.terminate()
        try:
            child.wait(5)
        except subprocess.TimeoutExpired:
            child.kill()
            child.wait()


class Client:
    """One connection, one request at a time."""

    def __init__(self, port=DAEMON_PORT):
        self.socket = socket.create_connection(("127.0.0.1", port), 10)
        self.socket.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.socket.close()

    def ask(self, request):
        self.socket.sendall(request.encode() + b"\n")
        data = b""
        while not data.endswith(b"\n"):
            data += self._receive()
        return data.decode()

    def get(self, name):
        return self.ask("GET " + name)[len(name) + 1 : -1]

    def set(self, pairs):
        self.socket.sendall(f"SET {pairs}\n".encode())
        data = b""
        while len(data) < 3:
            data += self._receive()
        assert data == b"ack", data

    def _receive(self):
        part = self.socket.recv(4096)
        assert part, "the server closed the connection"
        return part


def wait_until_listening(port, child, step=0.001):
    while True:
        assert child.poll() is None, f"{child.args[0]} ended with {child.returncode}"
        try:
            socket.create_connection(("127.0.0.1", port), 1).close()
            return time.monotonic()
        except OSError:
            time.sleep(step)


def wait_until_served(name, value, timeout=20, step=0.001):
    """Polls until the value appears. Returns the time of the reply."""
    deadline = time.monotonic() + timeout
    with Client() as client:
        while (answer := client.get(name)) != value:
            assert time.monotonic() < deadline, f"{name} is {answer}, not {value}"
            time.sleep(step)
    return time.monotonic()


class Frame:
    """One frame on the line; `at` in ms on the simulator's clock, `seen` on ours in seconds."""

    def __init__(self, line, seen):
        words = line.split()
        self.at = float(words[0])
        self.is_request = words[1] == ">"
        self.slave = int(words[2], 16)
        self.function = int(words[3], 16)
        self.address = int(words[4] + words[5], 16) if self.is_request else None
        self.seen = seen


class Simulator:
    """The line, with its trace. Register 2002 is pinned, so that POS is always POSITION."""

    def __init__(self, rig, grippers):
        words = [rig.programs / "gripper-simulator", "--trace"]
        for gripper in grippers:
            words += ["--gripper", gripper]
        self.process = rig.spawn(
            words, stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True, bufsize=1
        )
        self.frames = []
        self._answers = queue.Queue()
        self._reader = threading.Thread(target=self._read, daemon=True)
        self._reader.start()
        ready = self._answers.get(timeout=5)
        assert ready.startswith("ready "), ready
        for gripper in grippers:
            self.command(f"pin {gripper.split('=')[0]} 2002 {POSITION << 8}")

    def __enter__(self):
        return self

    def __exit__(self, *_):
        end(self.process)
        self._reader.join()

    def command(self, command):
        self.process.stdin.write(command + "\n")
        answer = self._answers.get(timeout=5)
        assert answer.startswith("ok"), f"{command}: {answer}"

    def _read(self):
        for line in self.process.stdout:
            seen = time.monotonic()
            if line[:1] == " " or line[:1].isdigit():
                # Lines with bytes of a bootloader have another form. There is no bootloader here.
                self.frames.append(Frame(line, seen))
            else:
                self._answers.put(line.rstrip("\n"))


def cpu_seconds(pid):
    """Returns the processor time of the process, which has one thread."""
    with open(f"/proc/{pid}/schedstat", encoding="ascii") as stat:
        return int(stat.read().split()[0]) / 1e9


def cpu_of_threads(pid):
    seconds = 0
    for thread in os.listdir(f"/proc/{pid}/task"):
        with open(f"/proc/{pid}/task/{thread}/schedstat", encoding="ascii") as stat:
            seconds += int(stat.read().split()[0]) / 1e9
    return seconds


def status_of(pid):
    """Returns the numbers of /proc/PID/status."""
    found = {}
    with open(f"/proc/{pid}/status", encoding="ascii") as status:
        for line in status:
            name, _, rest = line.partition(":")
            if (words := rest.split()) and words[0].isdigit():
                found[name] = int(words[0])
    return found


def machine():
    """Returns lines about the machine, with a warning about other load."""
    with open("/proc/cpuinfo", encoding="ascii", errors="replace") as info:
        models = [line.split(":")[1].strip() for line in info if line.startswith("model name")]
    load, cores = os.getloadavg(), os.cpu_count()
    lines = [
        f"machine  {cores} cores, {models[0] if models else 'processor unknown'}",
        f"kernel   Linux {os.uname().release}, {os.uname().machine}",
        "load     " + ", ".join(f"{value:.2f}" for value in load) + " (1, 5, 15 minutes)",
    ]
    busy = busy_share()
    lines.append(f"busy     {busy:.0%} of the processors before anything was started")
    if load[0] > 0.25 * cores or busy > 0.1:
        lines.append("WARNING  the machine has other work: figures are worse than it can do")
    return lines


def busy_share(seconds=1.0):
    """Returns the share of the processors in use now."""

    def used_and_all():
        with open("/proc/stat", encoding="ascii") as stat:
            times = [int(word) for word in stat.readline().split()[1:9]]
        return sum(times) - times[3] - times[4], sum(times)

    used, total = used_and_all()
    time.sleep(seconds)
    used_now, total_now = used_and_all()
    return (used_now - used) / max(1, total_now - total)
