"""Requests that are designed to be expensive delay only the client that sends them."""

import time

import pytest
from harness.client import Client
from harness.daemon import RELEASE
from harness.effort import effort
from harness.load import (
    VISITS_BESIDE_WRITES,
    VISITS_USUAL,
    WORST_LIMIT,
    Bystander,
    Memory,
    Visits,
    log_bytes,
)
from harness.processor import ProcessorWait
from harness.waiting import eventually

FLOODS = True
SHARES_DAEMON = True

ROUNDS = effort(5, 100)
# The observers need this time to measure an attack.
SECONDS = 1.5
# The bytes of log in one round: a hundred lines of a thousand characters, and some more.
LOG_LIMIT = 150_000
GROWTH_LIMIT_KIB = 64_000

MEBIBYTE = 1 << 20
MEGABYTE_OF_SET = ("SET AAA" + " 111" * 250_000)[:999_999]
KNOWN_PAIRS = "SET" + " POS 1 SPE 2 FOR 3 GTO 0" * 4_999 + " SPE 20 FOR 30 GTO 1 POS {0}\n"
UNKNOWN_NAMES = (
    "SET" + "".join(f" N{number:05}" for number in range(19_999)) + " SPE 40 POS {0}\n"
)


@pytest.fixture(autouse=True)
def polls_normally(found, line):
    line.wait_until_polled(9)
    yield
    with Client() as client:
        assert client.set("MUTE 0 THROTTLE 1") == "ack"


def attack(found, line, connect, figure, once, visited=VISITS_USUAL, worst=WORST_LIMIT):
    """Calls once(client, round) repeatedly and measures the effect on others."""
    client, written, number = connect(timeout=20), 0, 0
    with Bystander(found) as bystander:
        visits, ends = Visits(line, found), time.monotonic() + SECONDS
        while number < ROUNDS or time.monotonic() < ends or len(visits.gaps()) < 10:
            log = found.mark()
            once(client, number)
            written, number = max(written, log_bytes(found, log)), number + 1
        figure(visits.check(worst, visited))
    figure(bystander.check(worst))
    figure(f"{number} rounds, at most {written} bytes of log in one")
    bystander.check_longest(worst)
    assert written < LOG_LIMIT


def position(number):
    """Returns a different position for each round."""
    return number % 250 + 1


def test_a_megabyte_of_set_without_its_line_ending(found, line, connect, figure):
    def once(_, __):
        client = connect()
        client.send(MEGABYTE_OF_SET)
        # The text may still become a request, so there is no reply before its line ending.
        assert client.receive_until_silent(0.2) == b""
        client.close()

    attack(found, line, connect, figure, once)


def test_a_megabyte_of_set_is_carried_out_with_its_line_ending(
    found, line, connect, figure
):
    def once(client, number):
        client.send(MEGABYTE_OF_SET)
        client.send(f" POS {position(number)}\n")
        assert client.receive(3) == b"ack"
        eventually(lambda: line[9].get(1001) == [position(number)])

    # The daemon processes a hundred thousand pairs. In slow builds, this delays the visits.
    worst = WORST_LIMIT if RELEASE else 2.0
    attack(found, line, connect, figure, once, max(VISITS_BESIDE_WRITES, worst / 2), worst)


def test_a_megabyte_of_set_with_a_wrong_character_before_its_line_ending(
    found, line, connect, figure
):
    def once(client, _):
        client.send(MEGABYTE_OF_SET + "!\nGET VER\n")
        assert client.receive_line() == b"VER MZV-2.0.0\n"
        client.send(MEGABYTE_OF_SET + "!")
        client.send("GET VER\n")
        assert client.receive_line() == b"VER MZV-2.0.0\n"

    attack(found, line, connect, figure, once)


@pytest.mark.parametrize("ending", ["!", "!\n"], ids=["one line", "a thousand lines"])
def test_a_thousand_sets_with_a_wrong_character_each(found, line, connect, figure, ending):
    def once(client, _):
        client.send(("SET AAA" + " 111" * 30 + ending) * 1000 + "\nGET VER\n")
        assert client.receive_line() == b"VER MZV-2.0.0\n"

    attack(found, line, connect, figure, once)


@pytest.mark.parametrize(
    "request_text, speed_and_force",
    [(KNOWN_PAIRS, 0x141E), (UNKNOWN_NAMES, 0x2800)],
    ids=["known", "unknown"],
)
def test_a_valid_set_of_20000_names_is_carried_out(
    found, line, connect, figure, request_text, speed_and_force
):
    connect().set("SPE 0 FOR 0")

    def once(client, number):
        client.send(request_text.format(position(number)))
        assert client.receive(3) == b"ack"
        # These are the last values of the request.
        eventually(lambda: line[9].get(1001, 2) == [position(number), speed_and_force])

    attack(found, line, connect, figure, once, VISITS_BESIDE_WRITES)


def test_a_set_of_20000_unknown_names_is_logged_in_short_and_costs_no_memory(
    found, line, connect
):
    client, mark, request = connect(timeout=20), found.mark(), UNKNOWN_NAMES.format(1)
    memory = Memory(found)
    client.send(request)
    assert client.receive(3) == b"ack"
    assert memory.growth_kib() < GROWTH_LIMIT_KIB
    whole = 'SET UNHANDLED REQUEST : "' + request.replace("\n", '\\n"')
    cut = f"{whole[:1000]}... ({len(whole) - 1000} more characters)"
    logged = [text for text in found.messages(mark) if text.startswith("SET UNHANDLED")]
    assert logged == [cut] * 100 + ["SET UNHANDLED REQUEST : 19899 more pairs"]


@pytest.mark.parametrize("more, reply", [(0, b"ack"), (1, b"")], ids=["longest", "too long"])
def test_the_longest_set_is_a_mebibyte(found, line, connect, more, reply):
    client, other = connect(timeout=20), connect()
    assert other.set("POS 11 SPE 12") == "ack"
    eventually(lambda: line[9].get(1001, 2) == [11, 12 << 8])
    request = "SET POS 21 SPE 22 ABCDEF" + "G" * more + " 111" * (MEBIBYTE // 4 - 6)
    assert len(request) == MEBIBYTE + more
    client.send(request + "\n")
    assert client.receive(len(reply)) == reply
    assert client.receive_until_silent(0.3) == b""
    line.wait_until_polled(9, 3)
    assert line[9].get(1001, 2) == ([21, 22 << 8] if reply else [11, 12 << 8])
    assert client.get("VER") == "MZV-2.0.0"


def send_every_10_ms(client, requests, seconds):
    sent, ends = 0, time.monotonic() + seconds
    while time.monotonic() < ends:
        client.send(requests[sent % len(requests)])
        sent += 1
        time.sleep(0.01)
    assert client.receive(3 * sent) == b"ack" * sent
    return sent


@pytest.mark.parametrize(
    "requests, fastest, slowest",
    [
        (["SET THROTTLE 1\n"], 0.048, 0.056),
        # A visit has four requests of 10 ms each; the next tick follows after 5 ms.
        (["SET THROTTLE 0\n"], 0.040, 0.049),
        # A slow period may begin at the end of a visit and delays the next one.
        (["SET THROTTLE 0\n", "SET THROTTLE 1\n"], 0.040, 0.096),
    ],
    ids=["slow", "fast", "both in turn"],
)
def test_throttle_sent_every_10_ms(found, line, connect, figure, requests, fastest, slowest):
    client = connect()
    send_every_10_ms(client, requests, 0.2)
    visits = Visits(line, found)
    sent = send_every_10_ms(client, requests, effort(1, 60))
    gaps = sorted(visits.gaps())
    median = gaps[len(gaps) // 2]
    figure(f"{sent} sent, visits every {median * 1000:.1f} ms (longest {gaps[-1] * 1000:.0f} ms)")
    median_delay, longest_delay = visits.delays()
    assert fastest < median < slowest + median_delay
    assert gaps[-1] < 0.2 + longest_delay


@pytest.mark.parametrize("leave", ["close", "reset"])
def test_another_client_sees_and_undoes_the_mute_of_a_vanished_client(
    found, line, connect, figure, leave
):
    other = connect()
    line[9].put(2002, 0x2100)
    eventually(lambda: other.get("POS") == "33")
    vanishing = connect()
    vanishing.send("SET MUTE 1\n")
    getattr(vanishing, leave)()
    line.wait_until_quiet(0.2)
    mark, muted_at = line.mark(), time.monotonic()
    line[9].put(2002, 0x4D00)
    while time.monotonic() < muted_at + 1.0:
        assert (other.get("POS"), other.get("DRI")) == ("33", "RUNNING")
    assert line.since(mark) == []
    processor_wait, undone_at = ProcessorWait(found), time.monotonic()
    assert other.set("MUTE 0") == "ack"
    eventually(lambda: other.get("POS") == "77")
    took = time.monotonic() - undone_at
    figure(f"the first new value {took * 1000:.0f} ms after SET MUTE 0")
    assert took < 0.3 + processor_wait.seconds()
