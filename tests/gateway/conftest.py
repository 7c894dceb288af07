"""Fixtures of all gateway tests: those of the daemon tests, and a running gateway."""

import contextlib
import importlib.util
import pathlib
import subprocess
import sys

import pytest

_DAEMON_TESTS = pathlib.Path(__file__).resolve().parent.parent / "daemon"
sys.path.insert(0, str(_DAEMON_TESTS))

_spec = importlib.util.spec_from_file_location("daemon_conftest", _DAEMON_TESTS / "conftest.py")
_daemon_conftest = importlib.util.module_from_spec(_spec)
_spec.loader.exec_module(_daemon_conftest)
# pytest finds hooks and fixtures by their names in this module.
globals().update({n: v for n, v in vars(_daemon_conftest).items() if not n.startswith("_")})

from gatewayrig import OTHER_ADDRESS, Gateway  # noqa: E402 (needs the path)
from harness.client import Client  # noqa: E402
from harness.simulator import Simulator  # noqa: E402
from harness.waiting import eventually  # noqa: E402


@pytest.fixture
def other_address():
    """A second address of the machine, which is not loopback by its look."""
    subprocess.run(["ip", "address", "add", f"{OTHER_ADDRESS}/32", "dev", "lo"], check=True)
    yield OTHER_ADDRESS
    subprocess.run(["ip", "address", "del", f"{OTHER_ADDRESS}/32", "dev", "lo"], check=True)


@pytest.fixture
def certificate(tmp_path):
    paths = tmp_path / "cert.pem", tmp_path / "key.pem"
    subprocess.run(
        ["openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes"]
        + ["-subj", "/CN=gripper.plant", "-days", "2", "-out", paths[0], "-keyout", paths[1]],
        check=True, capture_output=True,
    )
    return paths


@pytest.fixture
def start_gateway(tmp_path):
    """start_gateway(*options) returns a gateway that must end well at the test's end."""
    started = []

    def start(*options, **settings):
        started.append(Gateway(tmp_path, *options, **settings))
        return started[-1].wait_until_ready()

    yield start
    try:
        for gateway in started:
            gateway.finish()
    finally:
        for gateway in started:
            gateway.kill()


@pytest.fixture(scope="module")
def simulated():
    """A line with fingers, slave id 9, and a vacuum gripper, slave id 2, for all tests of a file."""
    with Simulator("9=TA3-1.6.14", "2=TE1-2.0.2", "--activation-ms", "100") as line:
        yield line


@pytest.fixture(scope="module")
def module_gateway(simulated, start_module_daemon, tmp_path_factory):
    """A gateway, its daemon and the line `simulated`, for all tests of a file."""
    start_module_daemon()
    with contextlib.closing(Client()) as client:
        # On a busy machine, the first scan may miss a gripper.
        eventually(lambda: client.get("SID") == "[2, 9]" or client.set("SCN_BLOCK 1") != "ack", 20)
    gateway = Gateway(tmp_path_factory.mktemp("gateway"))
    try:
        gateway.wait_until_ready()
        gateway.wait_for(lambda state: len(state["grippers"]) == 2)
        yield gateway
        gateway.finish()
    finally:
        gateway.kill()
