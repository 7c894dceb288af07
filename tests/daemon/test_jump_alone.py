"""The line carries nothing between a jump's reset and the first byte of the search for the bootloader."""

import pytest
from harness.benches import Bench, benches
from harness.recording import RecordingSimulator
from harness.upgrades import put_flasher
from harness.waiting import eventually

RESET = b"\x09\x10\x01\x90"
SYNCHRONISATION = b"\x7f"


class RecordingBench(Bench):
    simulator = RecordingSimulator

    def requests(self):
        return [frame for is_request, frame in self.line.events if is_request]


@pytest.fixture
def make_bench(start_daemon, connect):
    with benches(RecordingBench, start_daemon, connect) as make:
        yield make


@pytest.mark.parametrize("jump", ["BLD 1", "UPG 1"])
@pytest.mark.parametrize("selection, request_", [(9, "SCN_BLOCK"), (9, "NID 2"), (4, "NID 3"), (4, "BLD 1")])
def test_requests_of_others_wait_for_the_end_of_a_jump(
    make_bench, tmp_path, jump, selection, request_
):
    put_flasher(tmp_path, "sleep 0.2")
    bench = make_bench("9=TA3-1.6.13", "4=TB1-1.4.3", cwd=tmp_path)
    bench.line.command("fault 9 late always 35 on 400")
    other = bench.connect()
    assert other.set(f"SID {selection}") == "ack"

    def reset():
        return next((n for n, f in enumerate(bench.requests()) if f.startswith(RESET)), None)

    bench.client.send(f"SET {jump}\n")
    eventually(lambda: reset() is not None)
    other.send(f"SET {request_}\n")
    assert bench.client.receive(3, timeout=15.0) == b"ack"
    bench.line.command("show")
    assert bench.requests()[reset() + 1].startswith(SYNCHRONISATION)
    # The request of the other client follows.
    assert other.receive(3, timeout=30.0) in (b"ack", b"nak")
