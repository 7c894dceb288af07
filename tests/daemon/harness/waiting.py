"""Waits for a condition."""

import time


def eventually(condition, timeout=5.0, what=None):
    """Returns the first true value of `condition()`. Raises AssertionError after `timeout` s."""
    deadline = time.monotonic() + timeout
    while True:
        value = condition()
        if value:
            return value
        if time.monotonic() > deadline:
            text = what() if callable(what) else what
            raise AssertionError(f"not within {timeout} s: {text or condition}; last {value!r}")
        time.sleep(0.005)
