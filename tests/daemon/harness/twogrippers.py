"""Fixtures: a daemon with two simulated grippers for all tests of a file.

The daemon has a firmware image for gripper 9, which is older, and no flasher.
"""

import pytest

from .flashing import make_image
from .simulator import Simulator


@pytest.fixture(scope="module")
def folder(tmp_path_factory):
    """The working directory of the daemon, where it expects its flasher."""
    folder = tmp_path_factory.mktemp("work")
    (folder / "firmware").mkdir()
    make_image(folder / "firmware", "TA3-1.6.14", 4096)
    return folder


@pytest.fixture(scope="module")
def simulator():
    quick = ["--boot-ms=200", "--activation-ms=200"]
    with Simulator("9=TA3-1.6.13", "2=TE1-2.0.1", *quick) as running:
        yield running


@pytest.fixture(scope="module")
def daemon(simulator, start_module_daemon, folder):
    return start_module_daemon(cwd=folder).wait_until_found(9, 2)
