"""The traffic of the polling loop."""

import pytest
from harness import modbus
from harness.line import Line, Slave
from harness.waiting import eventually

VISIT = [(2000, 3), (600, 2), (602, 2), (604, 2)]


def shape(requests):
    return [(r.address, r.count) for r in requests]


def settle(line, *slave_ids):
    """Waits for the first writes after the discovery."""
    for slave_id in slave_ids:
        line.wait_for(lambda r, n=slave_id: r.slave == n and r.is_write(1000))
    for slave_id in slave_ids:
        line.wait_until_polled(slave_id)


def test_a_visit_reads_the_status_and_then_the_three_counters(found, line):
    settle(line, 9)
    mark = line.mark()
    line.wait_until_polled(9, 4)
    requests = line.since(mark)
    start = next(i for i, r in enumerate(requests) if r.is_read(2000))
    assert shape(requests[start : start + 12]) == VISIT * 3


def test_grippers_are_visited_in_turn_in_ascending_order(start_daemon):
    with Line(*(Slave(n) for n in (9, 2, 3, 4))) as line:
        start_daemon().wait_until_found(2, 3, 4, 9)
        settle(line, 2, 3, 4, 9)
        mark = line.mark()
        visits = line.wait_for(lambda r: r.is_read(2000), 9, mark)
    ids = [r.slave for r in visits]
    order = [2, 3, 4, 9] * 4
    start = order.index(ids[0])
    assert ids == order[start : start + 9]


def test_the_first_visit_always_writes_and_later_ones_do_not(start_daemon):
    with Line(Slave(9), Slave(2)) as line:
        start_daemon().wait_until_found(9, 2)
        settle(line, 9, 2)
        line.wait_until_polled(9, 5)
        writes = line.since(0, lambda r: r.is_write())
    assert sorted((r.slave, r.address, r.count) for r in writes) == [(2, 1000, 3), (9, 1000, 3)]


def test_a_write_comes_between_the_visits_of_its_gripper_and_the_next(start_daemon, connect):
    with Line(Slave(9), Slave(2)) as line:
        start_daemon().wait_until_found(9, 2)
        settle(line, 9, 2)
        client, mark = connect(), line.mark()
        assert client.set("POS 5") == "ack"
        line.wait_for(lambda r: r.is_write(), since=mark)
        line.wait_until_polled(2)
        requests = line.since(mark)
    at = next(i for i, r in enumerate(requests) if r.is_write())
    assert requests[at].slave == 9
    assert [(r.slave, r.address) for r in requests[at - 4 : at]] == [
        (9, address) for address, _ in VISIT
    ]
    assert (requests[at + 1].slave, requests[at + 1].address) == (2, 2000)


def test_setting_the_same_value_again_writes_nothing(found, line, connect):
    client = connect()
    assert client.set("POS 50 SPE 60 LGN 1") == "ack"
    eventually(lambda: line[9].get(1000, 3) == [0x0080, 50, 60 << 8])
    line.wait_until_polled(9, 2)
    mark = line.mark()
    assert client.set("POS 50 SPE 60 LGN 1 FOR 0 GTO 0 MOD 0") == "ack"
    line.wait_until_polled(9, 3)
    assert line.since(mark, lambda r: r.is_write()) == []
    assert client.set("POS 51") == "ack"
    line.wait_for(lambda r: r.is_write() and r.values == [0x0080, 51, 60 << 8], since=mark)


def test_changes_between_two_visits_share_one_write(found, line, connect):
    settle(line, 9)
    mark = line.mark()
    assert connect().set("POS 1 POS 2 SPE 3 FOR 4") == "ack"
    line.wait_until_polled(9, 3)
    assert [r.values for r in line.since(mark, lambda r: r.is_write())] == [[0, 2, 0x0304]]


def test_a_change_during_the_write_is_in_the_next_write(found, line, connect):
    client = connect()
    settle(line, 9)
    late = []

    def script(request):
        if not request.is_write() or late:
            return None
        late.append(request)
        return [(0.04, line[9].plain_answer(request))]

    line[9].script = script
    assert client.set("POS 1") == "ack"
    line.wait_for(lambda r: r.is_write() and r.values == [0, 1, 0])
    assert client.set("POS 2") == "ack"
    line.wait_for(lambda r: r.is_write() and r.values == [0, 2, 0])


def test_a_gripper_that_is_active_is_reset_before_it_is_activated_again(found, line, connect):
    client = connect()
    settle(line, 9)
    line[9].put(2000, 0x3100)
    line.wait_until_polled(9)
    assert client.get("ACT") == "1"
    mark = line.mark()
    assert client.set("ACT 1") == "ack"
    # The daemon repeats the reset until the gripper reports that it is inactive.
    resets = line.wait_for(lambda r: r.is_write(), 3, mark)
    assert [r.values[0] & 0x0100 for r in resets] == [0, 0, 0]
    line[9].put(2000, 0)
    line.wait_for(lambda r: r.is_write() and r.values[0] == 0x0100, 1, mark)
    # The daemon writes the activation twice. Then no output is new.
    line.wait_until_polled(9, 4)
    values = [r.values[0] for r in line.since(mark, lambda r: r.is_write())]
    first = values.index(0x0100)
    assert values[:first] == [0] * first
    assert values[first:] == [0x0100, 0x0100]


def test_an_inactive_gripper_is_activated_by_two_writes(found, line, connect):
    settle(line, 9)
    mark = line.mark()
    assert connect().set("ACT 1") == "ack"
    line.wait_until_polled(9, 4)
    assert [r.values[0] for r in line.since(mark, lambda r: r.is_write())] == [0x0100, 0x0100]


def test_deactivating_is_written_even_if_nothing_changes(found, line, connect):
    settle(line, 9)
    mark = line.mark()
    assert connect().set("ACT 0") == "ack"
    line.wait_until_polled(9, 3)
    assert [r.values[0] for r in line.since(mark, lambda r: r.is_write())] == [0]


def test_a_failed_write_is_repeated_within_its_tick(found, line, connect):
    settle(line, 9)
    failures = [2]

    def script(request):
        if request.is_write() and failures[0]:
            failures[0] -= 1
            return b""
        return None

    line[9].script = script
    mark, log_mark = line.mark(), found.mark()
    assert connect().set("POS 7") == "ack"
    writes = line.wait_for(lambda r: r.is_write(), 3, mark)
    line.wait_until_polled(9, 2)
    assert [r.values for r in line.since(mark, lambda r: r.is_write())] == [[0, 7, 0]] * 3
    # The deadline for a write of three registers is 62 ms.
    assert all(b.at - a.at > 0.06 for a, b in zip(writes, writes[1:]))
    assert found.messages(log_mark)[1:] == [
        "gripper->updateOutput() fail counter:  1",
        "gripper->updateOutput() fail counter:  2",
    ]


def test_mute_stops_all_traffic_and_clients_are_answered_from_the_image(found, line, connect):
    client = connect()
    settle(line, 9)
    assert client.set("MUTE 1") == "ack"
    line.wait_until_quiet()
    mark = line.mark()
    line[9].put(2002, 0xAA00)
    assert client.set("POS 3 SCN") == "ack"
    for _ in range(20):
        assert client.get("POS") == "0"
        assert client.get("DRI") == "RUNNING"
    line.wait_until_quiet(0.4)
    assert line.since(mark) == []
    assert client.set("MUTE 0") == "ack"
    line.wait_for(lambda r: r.is_read(500), since=mark)
    eventually(lambda: client.get("POS") == "170")


def test_mute_stops_discovery_too(start_daemon, connect):
    daemon = start_daemon()
    daemon.wait_for_line("availablePorts")
    assert connect().set("MUTE 1") == "ack"
    with Line(Slave(9)) as line:
        line.wait_until_quiet(1.5)
        assert line.since(0) == []
        assert connect().set("MUTE 0") == "ack"
        daemon.wait_until_found(9)


def test_a_blocking_scan_runs_while_muted(found, line, connect):
    client = connect()
    assert client.set("MUTE 1") == "ack"
    line.wait_until_quiet()
    mark = line.mark()
    assert client.set("SCN_BLOCK") == "ack"
    assert {r.address for r in line.since(mark)} >= {500, 2000}
    line.wait_until_quiet(0.2)
    assert client.get("SID") == "[9]"


@pytest.mark.parametrize("address", [600, 602, 604])
def test_a_failed_counter_read_keeps_its_value_and_ends_the_visit(found, line, connect, address):
    client = connect()
    settle(line, 9)
    line[9].put(600, 1, 0, 2, 0, 3, 0)
    line.wait_until_polled(9)
    names = {600: "NCY", 602: "PON", 604: "NPA"}
    line[9].put(2002, 0x3300)
    line[9].put(600, 11, 0, 12, 0, 13, 0)
    line[9].script = lambda r: b"" if r.is_read(address) else None
    mark, log_mark = line.mark(), found.mark()
    found.wait_for_line(r"updateInput\(\) fail counter:  2 ", log_mark)
    # The status fields of the same visits are nevertheless fresh.
    assert client.get("POS") == "51"
    assert client.get(names[address]) == str({600: 1, 602: 2, 604: 3}[address])
    line[9].script = None
    requests = line.since(mark)
    at = next(i for i, r in enumerate(requests) if r.is_read(address))
    assert requests[at + 1].address == 2000
    line.wait_until_polled(9)
    assert client.get(names[address]) == str({600: 11, 602: 12, 604: 13}[address])


def test_a_short_status_answer_changes_nothing(found, line, connect):
    client = connect()
    settle(line, 9)
    line[9].put(2000, 0x3100, 0x0102, 0x0304)
    line.wait_until_polled(9)
    short = [True]

    def script(request):
        if request.is_read(2000) and short[0]:
            return modbus.read_answer(9, [0, 0])
        return None

    line[9].script = script
    found.wait_for_line("fail counter:  2 ")
    assert [client.get(n) for n in ("STA", "FLT", "POS", "COU")] == ["3", "01", "3", "4"]
    short[0] = False
    line.wait_until_polled(9)
    assert client.get("DRI") == "RUNNING"


@pytest.mark.parametrize("copied, polled, name", [(600, 602, "PON"), (604, 600, "NCY")])
def test_a_second_copy_of_a_counter_changes_no_other_counter(
    found, line, connect, copied, polled, name
):
    client = connect()
    line[9].put(600, 111, 0, 222, 0, 333, 0)
    own = str(line[9].get(polled)[0])
    eventually(lambda: client.get(name) == own)
    copy = modbus.read_answer(9, line[9].get(copied, 2))

    def copied_first(request):
        return copy + line[9].plain_answer(request) if request.is_read(polled) else None

    line[9].script = copied_first
    mark = line.mark()
    while len(line.since(mark, lambda r: r.is_read(2000))) < 4:
        assert client.get(name) == own
    # After the copies, the counter has its new value.
    line[9].put(polled, 999)
    line[9].script = None
    eventually(lambda: client.get(name) == "999")
