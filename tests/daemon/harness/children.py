"""Child processes that end with the test process, even if that is killed."""

import ctypes
import os
import resource
import signal
import subprocess

_libc = ctypes.CDLL(None, use_errno=True)
_PR_SET_PDEATHSIG = 1


def binary(name):
    """The path of one of our programs, from GRIPPERD_BIN_DIR."""
    path = os.path.join(os.environ["GRIPPERD_BIN_DIR"], name)
    assert os.access(path, os.X_OK), f"no program {path}"
    return path


def spawn(arguments, before_exec=None, **options):
    """Popen for a child that is killed when this process dies."""

    def prepare():
        _libc.prctl(_PR_SET_PDEATHSIG, signal.SIGKILL)
        resource.setrlimit(resource.RLIMIT_CORE, (0, 0))
        if before_exec:
            before_exec()

    return subprocess.Popen(arguments, preexec_fn=prepare, **options)
