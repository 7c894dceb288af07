"""Periods of the polling loop. ctest runs this file alone, because it judges milliseconds."""

import statistics
import time

from harness.daemon import SANITIZED
from harness.waiting import eventually


def visit_periods(line, visits=30):
    # The write after the discovery needs its own tick.
    line.wait_for(lambda r: r.is_write(1000))
    line.wait_until_polled(9)
    mark = line.mark()
    starts = line.wait_for(lambda r: r.is_read(2000), visits, mark, timeout=10)
    return [later.at - earlier.at for earlier, later in zip(starts, starts[1:])]


def assert_strict_visits(line, mark):
    addresses = [r.address for r in line.since(mark, lambda r: r.is_read())]
    first = addresses.index(2000)
    whole = addresses[first : first + (len(addresses) - first) // 4 * 4]
    assert len(whole) > 8
    assert whole == [2000, 600, 602, 604] * (len(whole) // 4)


def test_visits_come_every_50_ms(found, line):
    periods = visit_periods(line)
    assert 0.048 < statistics.median(periods) < 0.053, periods


def test_unthrottled_visits_come_as_fast_as_the_line_allows(found, line, connect):
    assert connect().set("THROTTLE 0") == "ack"
    periods = visit_periods(line)
    # A visit has four requests of 10 ms each; the next tick follows after 5 ms.
    assert 0.041 < statistics.median(periods) < 0.0495, periods


def test_throttling_again_restores_the_50_ms(found, line, connect):
    client = connect()
    assert client.set("THROTTLE 0") == "ack"
    visit_periods(line, 3)
    assert client.set("THROTTLE 1") == "ack"
    periods = visit_periods(line)
    assert 0.048 < statistics.median(periods) < 0.053, periods


def test_one_visit_takes_four_steps_of_10_ms(found, line):
    line.wait_for(lambda r: r.is_write(1000))
    line.wait_until_polled(9)
    mark = line.mark()
    line.wait_until_polled(9, 20)
    requests = line.since(mark)
    starts = [i for i, r in enumerate(requests) if r.is_read(2000) and i + 3 < len(requests)]
    # There are three steps from the first request to the fourth.
    steps = [requests[i + 3].at - requests[i].at for i in starts]
    assert 0.0295 < statistics.median(steps) < 0.036, steps


def test_a_new_interval_during_a_tick_starts_no_tick_inside_it(found, line, connect):
    client = connect()
    line.wait_for(lambda r: r.is_write(1000))
    line.wait_until_polled(9)
    # With slow answers, a visit lasts for many short periods.
    line[9].script = lambda r: [(0.03, line[9].plain_answer(r))]
    mark = line.mark()
    for turn in range(100):
        assert client.set(f"THROTTLE {turn % 2}") == "ack"
        assert client.receive_until_silent(0.01) == b""
    assert_strict_visits(line, mark)


def test_an_idle_daemon_with_one_gripper_uses_little(found, line):
    line.wait_until_polled(9, 5)
    cpu = found.cpu_seconds()
    line.wait_until_polled(9, 60)
    used = (found.cpu_seconds() - cpu) / 3.0
    assert used < (0.2 if SANITIZED else 0.03), f"{used:.3f} of a core"
    if not SANITIZED:
        assert found.resident_kib() < 20_000


def test_requests_are_answered_at_once_while_the_daemon_waits_for_the_line(found, line, connect):
    client = connect()
    line[9].listening = False
    found.wait_for_line("fail counter")
    worst = 0.0
    for _ in range(50):
        asked = time.monotonic()
        assert client.get("VER") == "MZV-2.0.0"
        worst = max(worst, time.monotonic() - asked)
    assert worst < (0.2 if SANITIZED else 0.03)
    line[9].listening = True
    eventually(lambda: client.get("DRI") == "RUNNING")
