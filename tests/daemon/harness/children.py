"""Child processes that end with the test process, even if a signal kills it."""

import ctypes
import os
import resource
import signal
import subprocess

_libc = ctypes.CDLL(None, use_errno=True)
_PR_SET_PDEATHSIG = 1


def binary(name):
    """Returns the path of one of our programs in the folder GRIPPERD_BIN_DIR."""
    path = os.path.join(os.environ["GRIPPERD_BIN_DIR"], name)
    assert os.access(path, os.X_OK), f"no program {path}"
    return path


def spawn(arguments, before_exec=None, **options):
    """Starts a program that the kernel kills when this process ends."""

    def prepare():
        _libc.prctl(_PR_SET_PDEATHSIG, signal.SIGKILL)
        resource.setrlimit(resource.RLIMIT_CORE, (0, 0))
        if before_exec:
            before_exec()

    return subprocess.Popen(arguments, preexec_fn=prepare, **options)
