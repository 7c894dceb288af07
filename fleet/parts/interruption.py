"""The signals that end the demo."""

import signal

_is_due = True


def begin():
    """From now on, the first signal raises KeyboardInterrupt."""
    for number in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
        signal.signal(number, _on_signal)


def end():
    """From now on, signals have no effect: the clean-up must not be interrupted."""
    global _is_due
    _is_due = False


def _on_signal(*_):
    if _is_due:
        end()
        raise KeyboardInterrupt
