"""The visits to the grippers, as the line saw them."""

import bisect
import math

FIRST_REGISTER = 2000
LAST_REGISTER = 604
REQUESTS = 4
WRITE = 0x10
OUTPUTS = 1000
# The daemon looks for an answer so often, and the first time so long after its request.
STEP = 10.0


class Visit:
    """Four reads of one gripper; times in ms on the simulator's clock."""

    def __init__(self, frames):
        self.slave = frames[0].slave
        self.start = frames[0].at
        self.end = frames[-1].at
        asked = frames[-2].at
        #: When the last answer was taken at the earliest: the line does not show the moment itself.
        self.taken = asked + STEP * max(1, math.ceil((self.end - asked) / STEP))

    @property
    def duration(self):
        return self.end - self.start


def visits_of(frames):
    """The whole visits among these frames, in order, and how many others began: their answers were
    lost. One that these frames end with is neither."""
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
    """From the taking of each one's last answer to the beginning of the next, whichever gripper's.
    One that was dropped lies in a gap."""
    return [after.start - before.taken for before, after in zip(visits, visits[1:])]


def periods(visits):
    """From beginning to beginning, whichever gripper's."""
    return [after.start - before.start for before, after in zip(visits, visits[1:])]


def clock_offset(frames):
    """What turns ms of the simulator into seconds of ours: the line that came through fastest."""
    return min(frame.seen - frame.at / 1000 for frame in frames)


def visit_before(visits, at):
    """The last one that ended before `at` ms."""
    index = bisect.bisect([visit.end for visit in visits], at)
    return visits[index - 1] if index else None
