"""The C++ client library withstands a daemon that misbehaves at random."""

import subprocess

from harness.children import binary
from harness.effort import effort

SCHEDULES = effort(2_000, 100_000)


def test_no_call_is_late_and_no_reply_is_given_to_the_wrong_call(figure):
    command = [binary("client-schedules"), str(SCHEDULES)]
    run = subprocess.run(command, capture_output=True, text=True, timeout=30 + SCHEDULES / 20)
    assert run.returncode == 0, run.stdout + run.stderr
    counts = run.stdout.splitlines()[-1]
    assert f"schedules {SCHEDULES}, wrong 0, late 0" in counts, run.stdout
    figure(counts)
