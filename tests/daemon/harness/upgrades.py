"""Stand-ins for the flasher, and helpers of all upgrade tests."""

import os
import pathlib
import time

from .children import binary
from .waiting import eventually

COMMAND = 'command :  "./romflasher" ("-p", "/dev/ttyTool", "-b", "{}", "-f", "{}", "-d", "-g")'


def put_flasher(folder, script):
    """Writes ./romflasher as a shell script that first notes its arguments and process id."""
    path = pathlib.Path(folder) / "romflasher"
    partial = path.with_name("romflasher.new")
    partial.write_text(
        "#!/bin/sh\n"
        'printf "%s\\n" "$@" >arguments.new; mv arguments.new arguments\n'
        "echo $$ >process.new; mv process.new process\n" + script + "\n",
        encoding="ascii",
    )
    partial.chmod(0o755)
    for note in ("arguments", "process"):
        path.with_name(note).unlink(missing_ok=True)
    partial.replace(path)


def put_real_flasher(folder):
    (pathlib.Path(folder) / "romflasher").symlink_to(binary("romflasher"))


def noted_arguments(folder):
    path = pathlib.Path(folder) / "arguments"
    eventually(path.exists, what="the flasher to start")
    return path.read_text(encoding="ascii").splitlines()


def noted_process(folder):
    path = pathlib.Path(folder) / "process"
    eventually(path.exists, what="the flasher to start")
    return int(path.read_text(encoding="ascii"))


def children_of(pid):
    """Returns the process ids of all descendants of `pid`."""
    found = []
    for entry in os.listdir("/proc"):
        try:
            with open(f"/proc/{entry}/stat", encoding="ascii", errors="replace") as stat:
                fields = stat.read().rsplit(")", 1)[1].split()
        except (OSError, IndexError):
            continue
        if entry.isdigit() and int(fields[1]) == pid and fields[0] != "Z":
            found += [int(entry), *children_of(int(entry))]
    return found


def is_alive(pid):
    try:
        with open(f"/proc/{pid}/stat", encoding="ascii", errors="replace") as stat:
            return stat.read().rsplit(")", 1)[1].split()[0] != "Z"
    except OSError:
        return False


def polls_nothing(line, seconds=0.5):
    """Waits for this time. Returns whether the line carried no request."""
    mark = line.mark()
    time.sleep(seconds)
    return line.since(mark) == []
