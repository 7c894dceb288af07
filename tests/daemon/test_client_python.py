"""The Python client library with the real daemon and simulated grippers."""

import asyncio
import contextlib
import socket
import subprocess
import threading
import time

import pytest
from harness.client import Client
from harness.protocoltable import rows
from harness.pythonclient import *  # noqa: F403
from harness.waiting import eventually

FAST = {"speed": 255, "force": 100}
KEPT_BY_THE_DAEMON = ["LBP", "LGN", "LRD", "LBL", "MSC", "SPE", "FOR"]


def test_images_have_the_values_of_the_table(line, gripper, connect):
    gripper.set({"MOD": 1, "LBP": 1, "LRD": 1, "MSC": 77, "SPE": 12, "FOR": 34})
    eventually(lambda: gripper.image().mode == 1)
    image, line_image = gripper.image(), line.image()
    client = connect()
    fields = {row.name: row for row in blocking.GET_VARIABLES}
    assert [row["name"] for row in rows("get")] != [] and len(fields) == len(rows("get"))
    for row in rows("get"):
        text = client.get(row["name"])
        source = image if row["needsGripper"] else line_image
        value = getattr(source, fields[row["name"]].field)
        if row["name"] in ("SNU", "FWV", "DRI", "VER"):
            assert value == text, row
        elif row["name"] == "SID":
            assert list(value) == [2, 9]
        elif fields[row["name"]].type == "flag":
            assert value is (text == "1"), row
        elif row["name"] not in ("NCY", "PON", "NPA"):
            assert value == int(text), row
        assert gripper.get(row["name"]) == text or row["name"] in ("NCY", "PON", "NPA")
    assert (image.led_bypass, image.led_red, image.peak_current) == (True, True, 77)
    assert (image.line.running, image.present, image.stale, image.listed) == (True, True, False, (2, 9))
    assert image.time.monotonic <= time.monotonic() and abs(image.time.wall - time.time()) < 10
    gripper.set({"MOD": 0, "LBP": 0, "LRD": 0, "MSC": 0})


@ONLY_BLOCKING
def test_every_settable_variable_is_known_and_sent(line, gripper, connect):
    needing_more = {"SID", "NID", "UPG", "BLD", "SCN", "SCN_BLOCK", "ATR", "MUTE", "THROTTLE"}
    client = connect()
    for row in rows("set"):
        if row["name"] in needing_more:
            continue
        gripper.set({row["name"]: 1})
        if row["name"] in KEPT_BY_THE_DAEMON:
            assert client.get(row["name"]) == "1", row
    gripper.set({"THROTTLE": 1, "SCN_BLOCK": 1}, timeout=10)
    for refused in ({"SID": 2}, {"NID": 3}, {"XYZ": 1}, {"POS": 256}, {"POS": -1}, {"POS": True}, {}):
        with pytest.raises(blocking.InvalidValue):
            gripper.set(refused)
    with pytest.raises(blocking.Refused):
        gripper.set({"MOD": 2})
    gripper.activate(again=True)


def test_a_movement_reaches_its_position_or_meets_an_object(gripper, simulator):
    reached = gripper.move(80, **FAST)
    assert isinstance(reached, blocking.Reached)
    assert (reached.position, reached.reached, reached.stalled) == (80, True, False)
    simulator.command("object 9 140")
    met = gripper.close()
    assert isinstance(met, blocking.ObjectMet)
    assert (met.position, met.reached, met.stalled) == (140, False, True)
    assert met.effort == gripper.image().current
    simulator.command("object 9 none")
    assert isinstance(gripper.open(), blocking.Reached)


@ONLY_ASYNCIO
def test_the_same_position_again_has_the_new_result(gripper, simulator):
    assert gripper.move(150, **FAST).reached
    assert gripper.move(150, speed=10, force=20).reached
    # Another movement is not written yet when the same position is requested again.
    with Client() as other:
        other.set("POS 60")
        started = time.monotonic()
        result = gripper.move(150, **FAST)
    assert (result.reached, result.position) == (True, 150)
    assert time.monotonic() - started >= 0.5
    assert gripper.image().position == 150


def test_a_movement_sends_one_set_line(gripper, simulator):
    mark = simulator.mark()
    gripper.move(33, speed=200, force=90)
    writes = simulator.since(mark, lambda r: r.slave == 9 and r.is_write(1000))
    assert [(r.values[1] & 0xFF, r.values[2]) for r in writes] == [(33, 200 << 8 | 90)]


@ONLY_ASYNCIO
def test_a_fault_ends_a_movement_and_activate_clears_it(gripper, simulator):
    timer = threading.Timer(0.3, simulator.command, ["faultcode 9 12"])
    timer.start()
    with pytest.raises(blocking.Fault) as raised:
        gripper.move(255, speed=0, force=0)
    timer.join()
    assert raised.value.code == 12
    with pytest.raises(blocking.Fault):
        gripper.move(255, **FAST)
    gripper.activate()
    assert gripper.image().fault == 0
    # The former request is not carried out.
    time.sleep(0.3)
    assert gripper.image().position == 0


def test_activation(gripper, simulator):
    gripper.move(90, **FAST)
    mark = simulator.mark()
    gripper.activate()
    assert simulator.since(mark, lambda r: r.is_write(1000)) == []
    assert gripper.image().position == 90
    gripper.activate(again=True)
    time.sleep(0.3)
    image = gripper.image()
    assert (image.active, image.go_to, image.position) == (True, False, 0)
    gripper.deactivate()
    assert gripper.image().status == blocking.Status.INACTIVE
    with pytest.raises(blocking.NotActive):
        gripper.move(10, **FAST)
    with pytest.raises(blocking.NotActive):
        gripper.release()


@ONLY_BLOCKING
def test_a_release_ends_and_the_activation_after_it_moves_nothing(gripper):
    gripper.move(60, **FAST)
    gripper.release()
    image = gripper.image()
    assert (image.status, image.position) == (blocking.Status.RELEASING, 0)
    gripper.activate()
    time.sleep(0.3)
    assert gripper.image().position == 0


@ONLY_ASYNCIO
def test_another_client_interferes(gripper, connect):
    client = connect()
    timer = threading.Timer(0.4, client.set, ["POS 17"])
    timer.start()
    with pytest.raises(blocking.Interference) as raised:
        gripper.move(255, speed=0, force=0)
    timer.join()
    assert "17" in raised.value.what
    timer = threading.Timer(0.4, client.set, ["GTO 0"])
    timer.start()
    with pytest.raises(blocking.Interference):
        gripper.move(255, speed=0, force=0)
    timer.join()


@ONLY_BLOCKING
def test_a_request_that_is_replaced_before_its_write_is_interference(gripper, connect):
    client = connect()
    client.set("MUTE 1")
    time.sleep(0.3)
    replacing = threading.Timer(0.3, lambda: (client.set("POS 23"), client.set("MUTE 0")))
    replacing.start()
    with pytest.raises(blocking.Interference):
        gripper.move(200, **FAST)
    replacing.join()


@ONLY_ASYNCIO
def test_a_movement_of_muted_polling_times_out(gripper, connect):
    client = connect()
    client.set("MUTE 1")
    started = time.monotonic()
    try:
        with pytest.raises(blocking.TimedOut) as raised:
            gripper.move(99, **FAST, timeout=0.5)
    finally:
        client.set("MUTE 0")
    assert 0.5 <= time.monotonic() - started < 0.6
    assert "muted" in str(raised.value)
    # The daemon has acknowledged the SET.
    assert raised.value.unknown is None


def test_stop_ends_the_movement_where_it_is(gripper):
    gripper.set({"POS": 255, "SPE": 0, "GTO": 1})
    eventually(lambda: gripper.image().position > 20)
    gripper.stop()
    position = gripper.image().position
    time.sleep(0.2)
    assert 20 < position < 255 and abs(gripper.image().position - position) <= 3


@ONLY_BLOCKING
def test_stop_also_ends_a_request_that_is_on_its_way(gripper, simulator, connect):
    """Go-to shows as off before the gripper has that request."""
    client = connect()
    for pause in range(0, 100, 10):
        gripper.stop()
        client.set("POS 255 SPE 0 FOR 0 GTO 1")
        time.sleep(pause / 1000)
        gripper.stop()
        outputs = simulator.registers(9, 1000, 3)
        mark = simulator.mark()
        time.sleep(0.15)
        assert simulator.since(mark, lambda r: r.is_write(1000)) == [], f"after {pause} ms"
        assert simulator.registers(9, 1000, 3) == outputs


def test_leds(gripper):
    gripper.led(True, False, True)
    image = gripper.image()
    assert (image.led_bypass, image.led_red, image.led_green, image.led_blue) == (True, True, False, True)
    gripper.led_auto()
    assert gripper.image().led_bypass is False


@ONLY_BLOCKING
def test_a_vacuum_gripper_meets_a_leak(line, simulator):
    simulator.command("object 2 30")
    with line.gripper(2) as vacuum:
        vacuum.activate()
        assert vacuum.move(50, **FAST).stalled
        vacuum.open()
    simulator.command("object 2 none")


def test_a_watch_reports_images_and_outages(line, gripper, simulator, flavour):
    watch = line.watch(rate=50)
    ids = {next(watch).id for _ in range(8)}
    assert ids == {2, 9}
    simulator.command("unplug")
    outage = eventually(lambda: isinstance(item := next(watch), blocking.Outage) and item)
    assert outage.reason is blocking.OutageReason.LINK_DOWN and "ERR_SCANNING" in outage.text
    later = next(item for item in watch if item.id == outage.id)
    assert later.since == outage.since and later.time.monotonic > outage.time.monotonic
    simulator.command("plug")
    eventually(lambda: {next(watch).__class__ for _ in range(4)} == {blocking.Image}, 10)
    watch.close()


def test_a_watch_has_no_backlog(gripper):
    with gripper.watch(rate=100) as watch:
        next(watch)
        time.sleep(0.3)
        before = time.monotonic()
        assert next(watch).time.monotonic >= before
        items = [next(watch) for _ in range(10)]
    gaps = [b.time.monotonic - a.time.monotonic for a, b in zip(items, items[1:])]
    assert sorted(gaps)[len(gaps) // 2] > 0.007


@pytest.mark.parametrize("host", ["::1", "[::1]", "[::1]:63352", "localhost", "fe80::2%lo"])
def test_addresses(daemon, loop, flavour, host):
    if host.startswith("fe80"):
        command = "ip -6 address replace fe80::2/64 dev lo nodad"
        subprocess.run(command.split(), check=True)
    with new_line(flavour, loop, host) as line:
        line.wait_until_running([2, 9], timeout=10)


def test_a_connection_that_hangs_ends_in_time(loop, flavour):
    with socket.create_server(("127.0.0.1", 0), backlog=0) as full:
        # The queue takes these; the next connection gets no answer.
        waiting = [socket.socket() for _ in range(3)]
        for client in waiting:
            client.setblocking(False)
            client.connect_ex(full.getsockname())
        with new_line(flavour, loop, *full.getsockname()) as line:
            started = time.monotonic()
            with pytest.raises(blocking.TimedOut):
                line.image(timeout=0.3)
            assert 0.3 <= time.monotonic() - started < 0.35
        for client in waiting:
            client.close()


@ONLY_BLOCKING
def test_a_thread_stops_the_movement_of_another(gripper):
    timer = threading.Timer(0.3, gripper.stop)
    timer.start()
    with pytest.raises(blocking.Interference):
        gripper.move(255, speed=0, force=0)
    timer.join()
    assert gripper.image().go_to is False


@ONLY_ASYNCIO
def test_fifty_grippers_are_watched_in_one_task(daemon, line, loop, figure):
    del line

    async def watch_all():
        watches = [aio.Line().watch([9], rate=20) for _ in range(50)]
        items = [[] for _ in watches]
        started = time.monotonic()
        while time.monotonic() - started < 2:
            for watch, seen in zip(watches, items):
                seen.append(await watch.__anext__())
        for watch in watches:
            await watch.close()
        return items

    used = time.process_time()
    items = loop.run_until_complete(watch_all())
    used = time.process_time() - used
    assert all(isinstance(item, blocking.Image) for seen in items for item in seen)
    counts = [len(seen) for seen in items]
    figure(f"50 watches in one task: {min(counts)} to {max(counts)} images in 2 s, {used:.2f} s CPU")
    assert min(counts) >= 30


@ONLY_ASYNCIO
def test_a_cancelled_exchange_leaves_nothing(daemon, line, loop):
    del line

    async def cancel_often():
        gripper = await aio.Line().gripper(9)
        for turns in range(60):
            task = asyncio.ensure_future(gripper.get("FWV" if turns % 2 else "SNU"))
            for _ in range(turns % 8):
                await asyncio.sleep(0)
            task.cancel()
            with contextlib.suppress(asyncio.CancelledError):
                await task
            assert await gripper.get("PYE") == "2024"
        await gripper.disconnect()

    loop.run_until_complete(cancel_often())


@ONLY_ASYNCIO
def test_tasks_share_one_gripper(daemon, line, loop):
    del line

    async def share():
        gripper = await aio.Line().gripper(9)
        await gripper.activate()
        await gripper.open()
        moving = asyncio.ensure_future(gripper.move(255, speed=0, force=0))
        while (await gripper.image()).position < 20:
            await asyncio.sleep(0.01)
        images = await asyncio.gather(*(gripper.image() for _ in range(20)))
        assert all(image.fault == 0 for image in images)
        await gripper.stop()
        with pytest.raises(blocking.Interference):
            await moving
        await gripper.disconnect()

    loop.run_until_complete(share())


@ONLY_ASYNCIO
def test_a_cancelled_maintenance_unmutes(daemon, line, loop, simulator):
    async def cancel(after):
        async def maintain():
            async with aio.Line().maintenance():
                await asyncio.sleep(10)

        task = asyncio.ensure_future(maintain())
        await asyncio.sleep(after)
        task.cancel()
        with pytest.raises(asyncio.CancelledError):
            await task

    # While it waits for a reply, for the silent line, and in the block.
    for after in (0, 0.1, 0.5):
        loop.run_until_complete(cancel(after))
        simulator.wait_until_polled(9)
