"""Periods of the polling loop, in milliseconds."""

import statistics
import time

from harness.daemon import SANITIZED
from harness.load import Visits
from harness.processor import ProcessorWait
from harness.waiting import eventually


def assert_period(line, daemon, fastest, slowest):
    # The write after the discovery needs its own tick.
    line.wait_for(lambda r: r.is_write(1000))
    line.wait_until_polled(9)
    visits = Visits(line, daemon)
    line.wait_until_polled(9, 30, timeout=10)
    median_delay, _ = visits.delays()
    assert fastest < statistics.median(visits.gaps()) < slowest + median_delay, visits.gaps()


def assert_strict_visits(line, mark):
    addresses = [r.address for r in line.since(mark, lambda r: r.is_read())]
    first = addresses.index(2000)
    whole = addresses[first : first + (len(addresses) - first) // 4 * 4]
    assert len(whole) > 8
    assert whole == [2000, 600, 602, 604] * (len(whole) // 4)


def test_visits_come_every_50_ms(found, line):
    assert_period(line, found, 0.048, 0.053)


def test_unthrottled_visits_come_as_fast_as_the_line_allows(found, line, connect):
    assert connect().set("THROTTLE 0") == "ack"
    # A visit has four requests of 10 ms each; the next tick follows after 5 ms.
    assert_period(line, found, 0.041, 0.0495)


def test_throttling_again_restores_the_50_ms(found, line, connect):
    client = connect()
    assert client.set("THROTTLE 0") == "ack"
    line.wait_until_polled(9, 3)
    assert client.set("THROTTLE 1") == "ack"
    assert_period(line, found, 0.048, 0.053)


def test_one_visit_takes_four_steps_of_10_ms(found, line):
    line.wait_for(lambda r: r.is_write(1000))
    line.wait_until_polled(9)
    mark, processor_wait = line.mark(), ProcessorWait(found)
    line.wait_until_polled(9, 20)
    delay = 2 * processor_wait.seconds()
    requests = line.since(mark)
    starts = [i for i, r in enumerate(requests) if r.is_read(2000) and i + 3 < len(requests)]
    # There are three steps from the first request to the fourth.
    steps = [requests[i + 3].at - requests[i].at for i in starts]
    # The waits for a processor are in half of the visits at worst.
    assert 0.0295 < statistics.median(steps) < 0.036 + delay / len(steps), steps


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
        processor_wait, asked = ProcessorWait(found), time.monotonic()
        assert client.get("VER") == "MZV-2.0.0"
        worst = max(worst, time.monotonic() - asked - processor_wait.seconds())
    assert worst < (0.2 if SANITIZED else 0.03)
    line[9].listening = True
    eventually(lambda: client.get("DRI") == "RUNNING")
