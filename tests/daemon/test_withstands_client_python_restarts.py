"""The daemon dies during movements of the Python client library."""

import random
import threading

import pytest
from harness.effort import effort
from harness.pythonclient import FLAVOURS, Loop, blocking, new_line
from harness.simulator import Simulator

MOVES = effort(10, 500)


@pytest.fixture
def simulator():
    with Simulator("9=TA3-1.6.14", "--activation-ms=200") as running:
        yield running


def speeds_of_new_daemon(simulator, mark):
    """The speeds that the daemon has written since its discovery, which reads register 500.

    The last write of the former daemon may appear after its death.
    """
    requests = simulator.since(mark, lambda r: r.slave == 9)
    first = next(i for i, request in enumerate(requests) if request.is_read(500))
    return [request.values[2] >> 8 for request in requests[first:] if request.is_write(1000)]


def test_no_set_is_repeated_and_the_next_call_works(simulator, start_daemon, figure):
    chance = random.Random(1)
    ends, unknown = {}, 0
    daemon = start_daemon()
    with Loop() as loop:
        for number in range(MOVES):
            with new_line(FLAVOURS[number % 2], loop) as line:
                line.wait_until_running([9])
                gripper = line.gripper(9)
                gripper.activate()
                gripper.open()
                # A scan sets the speed to 0, so this speed shows a repeated SET.
                speed = 1 + number % 254
                target = chance.choice([40, 120, 250])
                killing = threading.Timer(chance.uniform(0, 0.25), daemon.kill)
                killing.start()
                try:
                    end = type(gripper.move(target, speed, 10)).__name__
                except blocking.ConnectionLost as error:
                    end = "ConnectionLost"
                    assert error.unknown in (None, f"SET POS {target} SPE {speed} FOR 10 GTO 1")
                    unknown += error.unknown is not None
                killing.join()
                ends[end] = ends.get(end, 0) + 1
                mark = simulator.mark()
                daemon = start_daemon()
                line.wait_until_running([9])
                image = gripper.image()
                assert image.present and not image.stale
                simulator.wait_until_polled(9, 2)
                assert speed not in speeds_of_new_daemon(simulator, mark), f"move {number}"
                assert gripper.move(77, 255, 255).position == 77
                gripper.disconnect()
    assert "ConnectionLost" in ends
    figure(f"{MOVES} moves, daemon killed: {ends}, {unknown} with an unknown SET, 0 SETs repeated")


@pytest.mark.parametrize("flavour", FLAVOURS)
def test_a_watch_reports_the_restart_as_an_outage(simulator, start_daemon, flavour):
    daemon = start_daemon().wait_until_found(9)
    with Loop() as loop, new_line(flavour, loop) as line, line.watch([9], rate=50) as watch:
        assert isinstance(next(watch), blocking.Image)
        daemon.kill()
        outages = [next(watch) for _ in range(5)]
        assert {item.reason for item in outages} == {blocking.OutageReason.NO_CONNECTION}
        assert len({item.since for item in outages}) == 1
        daemon = start_daemon()
        reasons = []
        for item in watch:
            if isinstance(item, blocking.Image):
                break
            reasons.append(item.reason)
        assert not item.stale and blocking.OutageReason.MISSING not in reasons[:1]
        daemon.finish()
