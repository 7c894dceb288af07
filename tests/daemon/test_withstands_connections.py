"""Ended connections, also those that a client resets, leak neither memory nor descriptors."""

from harness.client import Client
from harness.daemon import SANITIZED, SMALL_QUARANTINE
from harness.effort import effort
from harness.load import Bystander
from harness.waiting import eventually

FLOODS = True

CONNECTIONS = effort(2_000, 50_000)
AT_A_TIME = 100
# The large number of connections reaches this limit with a leak of 20 bytes each.
GROWTH_LIMIT_KIB = 8_000 if SANITIZED else 1_000


def use_once(client, number):
    """Reads the reply, or leaves it unread and sends half a request too."""
    if number // 2 % 2:
        client.send("GET VER\nGET V")
    else:
        assert client.get("VER") == "MZV-2.0.0"


def drop(client, number):
    if number % 2:
        client.reset()
    else:
        client.close()


def come_and_go(daemon, count):
    for first in range(0, count, AT_A_TIME):
        mark = daemon.mark()
        clients = [Client() for _ in range(AT_A_TIME)]
        for number, client in enumerate(clients, first):
            use_once(client, number)
        for number, client in enumerate(clients, first):
            drop(client, number)
        eventually(
            lambda: sum("deleteLater" in m for m in daemon.messages(mark)) == AT_A_TIME,
            what="the end of all connections",
        )


def settled(daemon):
    """Returns the descriptors after the daemon has closed all sockets of ended connections."""

    def one_client():
        found = daemon.descriptors()
        # These are the sockets of the listener and of the bystander.
        return found if sum("socket:" in name for name in found) <= 2 else None

    return eventually(one_client, what=daemon.descriptors)


def test_ended_connections_leak_nothing(line, start_daemon, figure):
    daemon = start_daemon(environment=SMALL_QUARANTINE).wait_until_found(9)
    with Bystander(daemon) as bystander:
        come_and_go(daemon, 10 * AT_A_TIME)
        descriptors, memory = settled(daemon), daemon.resident_kib()
        come_and_go(daemon, CONNECTIONS)
        assert settled(daemon) == descriptors
        growth = daemon.resident_kib() - memory
    figure(f"{CONNECTIONS} connections, {growth} KiB more resident memory, no descriptor")
    figure(bystander.check())
    assert growth < GROWTH_LIMIT_KIB
    line.wait_until_polled(9)
