"""Fixtures of all daemon tests.

The tests of one file run one after another and share the port and the line. ctest runs the files
side by side. Each file has its own process and namespaces (scripts/isolated --net).
"""

import contextlib
import os
import pathlib
import resource

import pytest

from harness import ports
from harness.client import Client
from harness.daemon import Daemon
from harness.figures import Figures
from harness.line import Line, Slave
from harness.stalls import STALL_LIMIT, StallWatch

REPETITIONS = 2
# A daemon that several tests share needs this time to recover from a stall of the machine.
RECOVERY_SECONDS = 2


def pytest_configure(config):
    for namespace, outer in (("net", "GRIPPERD_OUTER_NET"), ("mnt", "GRIPPERD_OUTER_MNT")):
        if os.environ.get(outer) in (None, os.readlink(f"/proc/self/ns/{namespace}")):
            raise pytest.UsageError(
                "the daemon tests need namespaces of their own: run them with ctest, or as "
                "scripts/isolated --net /usr/bin/python3 -m pytest tests/daemon/test_NAME.py"
            )
    if "GRIPPERD_BIN_DIR" not in os.environ:
        raise pytest.UsageError("GRIPPERD_BIN_DIR must name the folder with the programs")
    os.environ["GRIPPERD_BIN_DIR"] = os.path.abspath(os.environ["GRIPPERD_BIN_DIR"])
    _, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
    resource.setrlimit(resource.RLIMIT_NOFILE, (hard, hard))
    ports.hide_the_machines_ports()


def pytest_collection_modifyitems(items):
    """Repeats a failed test only if the machine stalled while it ran."""
    for item in items:
        item.add_marker(
            pytest.mark.flaky(
                reruns=REPETITIONS,
                reruns_delay=RECOVERY_SECONDS,
                condition="config.stall_watch.worst() >= config.stall_limit",
            )
        )


def pytest_collection_finish(session):
    # A slave has tens of milliseconds to answer, so the tests need a high priority on a busy
    # machine. Files that keep the processor busy set FLOODS and keep the usual priority.
    if not any(getattr(item.module, "FLOODS", False) for item in session.items):
        with contextlib.suppress(PermissionError):
            os.nice(-10)
    # The watch has the same priority as the daemon.
    session.config.stall_watch = StallWatch()
    session.config.stall_limit = STALL_LIMIT


@pytest.hookimpl(tryfirst=True)
def pytest_runtest_setup(item):
    item.config.stall_watch.reset_worst()


def pytest_sessionstart(session):
    session.config.figures = Figures()


def pytest_terminal_summary(terminalreporter, config):
    figures = getattr(config, "figures", Figures())
    for report in terminalreporter.stats.get("skipped", []):
        figures.add(report.nodeid.split("::")[-1], report.longrepr[2])
    for line in figures.lines:
        terminalreporter.write_line(f"figure  {line}")
    for report in terminalreporter.stats.get("rerun", []):
        terminalreporter.write_line(
            f"{report.nodeid} failed while the machine stalled, so pytest repeated it:"
        )
        terminalreporter.write_line(report.longreprtext)


@pytest.fixture
def figure(request):
    """figure(text) keeps a measured value and prints it at the end."""
    return lambda text: request.config.figures.add(request.node.name, text)


@pytest.fixture
def start_daemon(tmp_path):
    """start_daemon(...) returns a listening daemon that must quit cleanly at the test's end."""
    with daemons(tmp_path) as start:
        yield start


@pytest.fixture(scope="module")
def start_module_daemon(tmp_path_factory):
    """As start_daemon, for all tests of a file."""
    with daemons(tmp_path_factory.mktemp("daemon")) as start:
        yield start


@contextlib.contextmanager
def daemons(folder):
    started = []

    def start(**options):
        options.setdefault("cwd", pathlib.Path(folder))
        daemon = Daemon(**options)
        started.append(daemon)
        return daemon.wait_until_listening()

    try:
        yield start
        for daemon in started:
            # A test that ends its daemon also checks the status.
            if daemon.process.returncode is None:
                daemon.finish()
    finally:
        for daemon in started:
            daemon.kill()


@pytest.fixture
def connect():
    """connect() returns a client; the fixture closes it at the test's end."""
    clients = []

    def new_client(**options):
        clients.append(Client(**options))
        return clients[-1]

    yield new_client
    for client in clients:
        client.close()


@pytest.fixture(scope="module")
def module_line():
    with Line(Slave(9)) as plugged:
        yield plugged


@pytest.fixture(scope="module")
def module_found(module_line, start_module_daemon):
    daemon = start_module_daemon().wait_until_found(9)
    module_line.wait_for(lambda r: r.is_write(1000))
    return daemon


def shares_daemon(request):
    return getattr(request.module, "SHARES_DAEMON", False)


@pytest.fixture
def line(request):
    """A line with one gripper, slave id 9.

    If a file sets SHARES_DAEMON, all its tests use the same line and daemon, and each test leaves
    them as it found them. The daemon has then written its first outputs.
    """
    if shares_daemon(request):
        yield request.getfixturevalue("module_line")
        return
    with Line(Slave(9)) as plugged:
        yield plugged


@pytest.fixture
def found(request, line, start_daemon):
    """A daemon that has found the gripper of `line`."""
    if shares_daemon(request):
        return request.getfixturevalue("module_found")
    return start_daemon().wait_until_found(9)


@pytest.fixture(scope="module")
def grippers():
    """A line with fingers, slave id 9, and a vacuum gripper, slave id 2, for all tests of a file."""
    with Line(Slave(9), Slave(2, "TE1-2.0.2")) as plugged:
        yield plugged


@pytest.fixture(scope="module")
def daemon(grippers, start_module_daemon):
    """A daemon on the line `grippers` that has found both."""
    return start_module_daemon().wait_until_found(9, 2)
