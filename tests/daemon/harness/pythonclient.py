"""The Python client library: its blocking classes, and its asyncio classes in a blocking dress.

So one test covers both.
"""

import asyncio
import inspect
import pathlib
import sys

import pytest

from .twogrippers import daemon, folder, simulator
from .waiting import eventually

PACKAGE = pathlib.Path(__file__).resolve().parents[3] / "client" / "python"
sys.path.insert(0, str(PACKAGE))

import gripperd_client as blocking  # noqa: E402
from gripperd_client import aio  # noqa: E402

# For the import of all names, which includes the fixtures.
__all__ = [
    "FLAVOURS",
    "ONLY_ASYNCIO",
    "ONLY_BLOCKING",
    "aio",
    "blocking",
    "daemon",
    "flavour",
    "folder",
    "gripper",
    "line",
    "loop",
    "new_line",
    "simulator",
]
FLAVOURS = ["blocking", "asyncio"]
# Most of the library is the same code for both. These tests take seconds, so they run for one of them.
ONLY_BLOCKING = pytest.mark.parametrize("flavour", ["blocking"], indirect=True)
ONLY_ASYNCIO = pytest.mark.parametrize("flavour", ["asyncio"], indirect=True)


class Driven:
    """An object of the asyncio classes. Its coroutines run to their end in `loop`."""

    def __init__(self, wrapped, loop):
        self.wrapped = wrapped
        self.loop = loop

    def __getattr__(self, name):
        return self._dressed(getattr(self.wrapped, name))

    def _dressed(self, value):
        if inspect.iscoroutinefunction(value):
            return lambda *words, **named: self._dressed(self._run(value(*words, **named)))
        if inspect.ismethod(value):
            return lambda *words, **named: self._dressed(value(*words, **named))
        ours = (aio.Line, aio.Gripper, aio.Watch, aio.Maintenance)
        return Driven(value, self.loop) if isinstance(value, ours) else value

    def _run(self, coroutine):
        return self.loop.run_until_complete(coroutine)

    def __enter__(self):
        self._run(self.wrapped.__aenter__())
        return self

    def __exit__(self, *reason):
        return self._run(self.wrapped.__aexit__(*reason))

    def __iter__(self):
        return self

    def __next__(self):
        return self._run(self.wrapped.__anext__())


def new_line(flavour, loop, *words, **named):
    """Makes a line of this flavour. `loop` serves the asyncio classes."""
    if flavour == "blocking":
        return blocking.Line(*words, **named)
    return Driven(aio.Line(*words, **named), loop)


class Loop:
    """An event loop, for a with block."""

    def __enter__(self):
        self.loop = asyncio.new_event_loop()
        return self.loop

    def __exit__(self, *_):
        # Lets closed connections end.
        self.loop.run_until_complete(asyncio.sleep(0))
        self.loop.run_until_complete(asyncio.sleep(0))
        self.loop.close()


# Fixtures


@pytest.fixture(scope="module")
def loop():
    with Loop() as running:
        yield running


@pytest.fixture(params=FLAVOURS)
def flavour(request):
    return request.param


@pytest.fixture
def line(daemon, simulator, loop, flavour, folder):
    """A line with its two usual grippers, which have no faults."""
    (folder / "romflasher").unlink(missing_ok=True)
    simulator.command("clear")
    simulator.command("object 9 none")
    with new_line(flavour, loop) as line:
        if line.grippers() != (2, 9) or not line.state().running:
            eventually(lambda: line.scan() == (2, 9))
        yield line


@pytest.fixture
def gripper(line):
    """Gripper 9, active and open."""
    with line.gripper(9) as gripper:
        gripper.activate()
        gripper.open()
        yield gripper
