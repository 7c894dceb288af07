"""Finds the visits to the grippers in the frames of the line."""

import bisect
import math

FIRST_REGISTER = 2000
LAST_REGISTER = 604
REQUESTS = 4
WRITE = 0x10
OUTPUTS = 1000
# The daemon looks for an answer after each of these steps, counted from the request.
STEP = 10.0


class Visit:
    """Four reads of one gripper; times in ms on the simulator's clock."""

    def __init__(self, frames):
        self.slave = frames[0].slave
        self.start = frames[0].at
        self.end = frames[-1].at
        asked = frames[-2].at
        #: The earliest time at which the daemon took the last answer; the line does not show it.
        self.taken = asked + STEP * max(1, math.ceil((self.end - asked) / STEP))

    @property
    def duration(self):
        return self.end - self.start


def visits_of(frames):
    """Returns (complete visits in order, number of visits that lost an answer).

    A visit that continues after the last frame is in neither.
    """
    found, dropped = [], 0
    open_visit = []
    for frame in frames:
        if frame.is_request and frame.address == FIRST_REGISTER:
            dropped += bool(open_visit)
            open_visit = []
        elif not open_visit:
            continue
        open_visit.append(frame)
        if len(open_visit) == 2 * REQUESTS:
            if open_visit[-2].address == LAST_REGISTER:
                found.append(Visit(open_visit))
            else:
                dropped += 1
            open_visit = []
    return found, dropped


def writes_of(frames):
    return [f for f in frames if f.is_request and f.function == WRITE and f.address == OUTPUTS]


def gaps(visits):
    """Returns the times from the last answer of each visit to the first request of the next visit.

    The next visit may be of another gripper. A dropped visit is part of a gap.
    """
    return [after.start - before.taken for before, after in zip(visits, visits[1:])]


def periods(visits):
    """Returns the times between the starts of consecutive visits, of any gripper."""
    return [after.start - before.start for before, after in zip(visits, visits[1:])]


def clock_offset(frames):
    """Returns our clock minus the simulator's clock, from the frame with the least delay."""
    return min(frame.seen - frame.at / 1000 for frame in frames)


def visit_before(visits, at):
    """Returns the last visit that ended before `at` ms, or None."""
    index = bisect.bisect([visit.end for visit in visits], at)
    return visits[index - 1] if index else None
