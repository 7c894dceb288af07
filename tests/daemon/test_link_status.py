"""The status of the link that clients see, and the recovery of the link."""

import pytest
from harness import modbus
from harness.waiting import eventually

FAILURES = [f"gripper->updateInput() fail counter:  {n}" for n in range(1, 6)]


def fail_lines(daemon, since=0):
    return [m for m in daemon.messages(since) if "fail counter" in m]


def fails(count, address=2000):
    """Returns a script that does not answer the next `count` requests to this address."""
    left = [count]

    def script(request):
        if request.address != address or left[0] == 0:
            return None
        left[0] -= 1
        return b""

    return script


def test_four_failures_in_a_row_are_tolerated(found, line, connect):
    line.wait_until_polled(9)
    line[9].script = fails(4)
    found.wait_for_line("fail counter:  4 ")
    line.wait_until_polled(9)
    assert connect().get("DRI") == "RUNNING"
    assert fail_lines(found) == FAILURES[:4]
    assert len([m for m in found.messages() if "availablePorts" in m]) == 1


def test_a_sixth_call_that_succeeds_still_counts_as_failure(found, line, connect):
    client = connect()
    line.wait_until_polled(9)
    mark = line.mark()
    line[9].script = fails(5)
    found.wait_for_line("fail counter:  5 ")
    eventually(lambda: client.get("DRI") == "ERR_TIMEOUT")
    assert fail_lines(found) == FAILURES
    status_reads = line.since(mark, lambda r: r.is_read(2000))
    assert len(status_reads) >= 6
    # The daemon has closed the link, searched for ports and found the gripper again.
    eventually(lambda: client.get("DRI") == "RUNNING")
    assert len([m for m in found.messages() if "availablePorts" in m]) == 2


def test_five_failed_writes_end_in_a_time_out_too(found, line, connect):
    client = connect()
    line.wait_until_polled(9, 2)
    line[9].script = fails(6, 1000)
    mark = found.mark()
    assert client.set("POS 9") == "ack"
    eventually(lambda: client.get("DRI") == "ERR_TIMEOUT")
    assert fail_lines(found, mark) == [m.replace("Input", "Output") for m in FAILURES]
    eventually(lambda: client.get("DRI") == "RUNNING")


def test_time_out_remains_until_a_gripper_is_found_again(found, line, connect):
    client = connect()
    line[9].listening = False
    eventually(lambda: client.get("DRI") == "ERR_TIMEOUT")
    eventually(lambda: client.get("SID") == "[]")
    mark = found.mark()
    found.wait_for_line(r": \(\) ", mark)
    assert client.get("DRI") == "ERR_TIMEOUT"
    assert client.get("POS") == "?"
    line[9].listening = True
    found.wait_until_found(9, since=mark)
    eventually(lambda: client.get("DRI") == "RUNNING")
    assert client.get("POS") == "0"


def test_unplugging_is_an_error_and_plugging_brings_it_back(found, line, connect):
    client = connect()
    for _ in range(2):
        line.wait_until_polled(9)
        descriptors, mark = len(found.descriptors()), found.mark()
        line.unplug()
        eventually(lambda: client.get("DRI") == "ERR_SCANNING (EIO)")
        found.wait_for_line("availablePorts", mark)
        # The daemon has closed the port and removed its lock. The next search opens files for a moment.
        eventually(lambda: len(found.descriptors()) < descriptors, what=found.descriptors)
        assert client.get("SID") == "[]"
        assert client.get("DRI") == "ERR_SCANNING (EIO)"
        mark = found.mark()
        line.plug()
        found.wait_until_found(9, since=mark)
        eventually(lambda: client.get("DRI") == "RUNNING")


FAULTS = {
    "only a header": lambda answer: answer[:2],
    "late": lambda answer: [(0.12, answer)],
}


@pytest.mark.parametrize("kind", list(FAULTS))
def test_one_invalid_answer_is_one_failure(found, line, connect, kind):
    """test_simulated_grippers.py has the faults that the simulator knows."""
    line.wait_until_polled(9, 2)
    line[9].put(2002, 0x2A00)
    done = []

    def script(request):
        # The last read of a visit: a late answer meets the next visit.
        if not request.is_read(604) or done:
            return None
        done.append(request)
        return FAULTS[kind](line[9].plain_answer(request))

    line[9].script = script
    found.wait_for_line("fail counter:  1 ")
    line.wait_until_polled(9, 3)
    counts = fail_lines(found)
    if kind == "late":
        # The late answer may spoil the second try, but not the third.
        counts = counts[:1]
        assert len(fail_lines(found)) <= 2
    assert counts == FAILURES[:1]
    client = connect()
    assert (client.get("DRI"), client.get("POS")) == ("RUNNING", "42")


HARMLESS = {
    "trailing bytes": lambda answer: answer + b"\x01\x02\x03",
    "in pieces": lambda answer: [(0.0, answer[:3]), (0.015, answer[3:7]), (0.03, answer[7:])],
    "just in time": lambda answer: [(0.03, answer)],
    "another byte count": lambda answer: modbus.with_crc(answer[:2] + b"\x63" + answer[3:-2]),
}


@pytest.mark.parametrize("kind", list(HARMLESS))
def test_an_answer_that_stays_valid_is_no_failure(found, line, connect, kind):
    line.wait_until_polled(9, 2)
    line[9].put(2002, 0x2A00)
    line[9].put(600, 7, 0)

    def script(request):
        return HARMLESS[kind](line[9].plain_answer(request)) if request.is_read() else None

    line[9].script = script
    line.wait_until_polled(9, 5)
    client = connect()
    assert [client.get(n) for n in ("DRI", "POS", "NCY")] == ["RUNNING", "42", "7"]
    assert fail_lines(found) == []


def test_a_write_answer_with_another_address_is_accepted(found, line, connect):
    line.wait_until_polled(9, 2)
    line[9].script = lambda r: modbus.write_answer(9, 7, 9) if r.is_write() else None
    mark = line.mark()
    assert connect().set("POS 1") == "ack"
    line.wait_for(lambda r: r.is_write(), since=mark)
    line.wait_until_polled(9, 3)
    assert fail_lines(found) == []
    assert len(line.since(mark, lambda r: r.is_write())) == 1


def test_an_exception_is_waited_out_for_the_whole_deadline(found, line):
    line.wait_until_polled(9, 2)
    refused = []

    def script(request):
        if not request.is_read(2000) or refused:
            return None
        refused.append(request)
        return modbus.exception_answer(9, 3, 2)

    mark = line.mark()
    line[9].script = script
    found.wait_for_line("fail counter:  1 ")
    line.wait_until_polled(9)
    requests = line.since(mark)
    at = next(i for i, r in enumerate(requests) if r.at == refused[0].at)
    # The deadline for three registers is 32 + 30 ms, checked every 10 ms.
    assert 0.062 <= requests[at + 1].at - requests[at].at < 0.085
