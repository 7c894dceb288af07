"""The requests on a line, each with its time."""

import threading
import time


class RequestLog:
    def __init__(self):
        self.requests = []
        self._changed = threading.Condition()

    def keep(self, request):
        with self._changed:
            self.requests.append(request)
            self._changed.notify_all()

    def mark(self):
        """Returns the number of requests so far, as a start for since() and wait_for()."""
        with self._changed:
            return len(self.requests)

    def since(self, mark, wanted=lambda _: True):
        with self._changed:
            found = self.requests[mark:]
        return [r for r in found if wanted(r)]

    def wait_for(self, wanted, count=1, since=0, timeout=5.0):
        """Waits for `count` requests that `wanted` accepts, from number `since` on; returns them."""
        deadline = time.monotonic() + timeout
        with self._changed:
            while True:
                found = [r for r in self.requests[since:] if wanted(r)]
                if len(found) >= count:
                    return found[:count]
                left = deadline - time.monotonic()
                assert left > 0, f"{len(found)} of {count} requests; last {self.requests[-8:]}"
                self._changed.wait(left)

    def wait_until_polled(self, slave_id, visits=1, timeout=5.0):
        """Waits for `visits` complete visits of this slave from now on."""
        self.wait_for(
            lambda r: r.slave == slave_id and r.is_read(2000), visits + 1, self.mark(), timeout
        )
