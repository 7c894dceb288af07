"""Quit signals in every state of the daemon.

No child remains, and the next daemon finds the grippers. Each state gets one of the signals, and all
of them under scripts/robustness.
"""

import os
import pathlib
import signal
import statistics
import time

import pytest
from harness.daemon import QUIT_LIMIT, Daemon
from harness.effort import LARGE, effort
from harness.flashing import make_image
from harness.line import Line, Slave
from harness.moving import SETTINGS, MovingSlave
from harness.ports import ENVIRONMENT, FakePorts, install_fuser, is_not_open
from harness.simulator import Simulator
from harness.upgrades import (
    children_of, is_alive, noted_process, put_flasher, put_real_flasher,
)
from harness.waiting import eventually

FLOODS = True
SIGNALS = [signal.SIGQUIT, signal.SIGINT, signal.SIGTERM, signal.SIGHUP]
ROUNDS = effort(1, 3)
# All probed ids answer, so a discovery is as short as possible.
IDS = (9, 2, 3, 4)
MOVED_TO = 7
CLIENTS = 1000
LOCKS = "/run/lock"


class Stage:
    """A line and a daemon. A function of the table STATES brings them into its state."""

    def __init__(self, folder, connect):
        self.folder = folder
        self.connect = connect
        self.moving = MovingSlave(9)
        self.line = Line(self.moving, *(Slave(n) for n in IDS[1:]))
        self.daemon = None

    def __enter__(self):
        self.line.plug()
        return self

    def __exit__(self, *_):
        if self.daemon:
            self.daemon.kill()
        self.line.unplug()

    def start(self):
        self.daemon = Daemon(self.folder, environment=ENVIRONMENT).wait_until_listening()
        return self.daemon

    def start_and_find(self):
        self.start().wait_until_found(*IDS)
        return self.line.mark()

    def ask_quietly(self, request):
        """Sends a request on a silent line. Returns the mark from before."""
        client = self.connect()
        assert client.set("MUTE 1") == "ack"
        self.line.wait_until_quiet()
        mark = self.line.mark()
        client.send(request + "\n")
        return mark

    def restore(self):
        """Restores every gripper at a probed id."""
        for slave in self.line.slaves.values():
            slave.listening = True
        if self.moving.id != 9:
            self.line.slaves[9] = self.line.slaves.pop(self.moving.id)
            self.moving.id = 9
        self.moving.put(430, *SETTINGS)


class FlashStage(Stage):
    """A stage with simulated grippers, which have bootloaders."""

    def __init__(self, folder, connect):
        super().__init__(folder, connect)
        self.line = None

    def __enter__(self):
        grippers = ["9=TA3-1.6.13", *(f"{n}=TA3-1.6.13" for n in IDS[1:])]
        options = ["--boot-ms=200", "--bootloader-boot-ms=100", "--bootloader-bps=19200"]
        self.line = Simulator(*grippers, *options)
        return self

    def __exit__(self, *_):
        if self.daemon:
            self.daemon.kill()
        self.line.__exit__()

    def restore(self):
        # A gripper has no firmware after an interrupted flash, so replace all of them.
        for slave_id in IDS:
            self.line.command(f"remove {slave_id}")
            self.line.command(f"add {slave_id}=TA3-1.6.13")


# The states: each function returns when the daemon is in its state.


def before_any_port(stage):
    link, stage.line.link = stage.line.link, "/dev/ttyElsewhere"
    os.rename(link, stage.line.link)
    stage.start().wait_for_line("availablePorts")
    os.rename(stage.line.link, link)
    stage.line.link = link


def silent_scan(stage):
    for slave in stage.line.slaves.values():
        slave.listening = False
    stage.start()
    stage.line.wait_for(lambda r: r.slave == 9, since=stage.line.mark())


def hanging_fuser(stage):
    for slave in stage.line.slaves.values():
        slave.listening = False
    install_fuser(stage.folder, "echo >running; exec sleep 60")
    with FakePorts("ttyUSB0"):
        stage.start()
        eventually((stage.folder / "running").exists, what="the fuser")
    (stage.folder / "running").unlink()
    (stage.folder / "fuser").unlink()


def polling(stage):
    stage.start_and_find()
    stage.line.wait_until_polled(9)


def unanswered_poll(stage):
    stage.start_and_find()
    stage.moving.listening = False
    stage.daemon.wait_for_line("fail counter:  1 ")


def unplugged(stage):
    stage.start_and_find()
    mark = stage.daemon.mark()
    stage.line.unplug()
    stage.daemon.wait_for_line("availablePorts", mark)
    stage.line.plug()


def blocking_scan(stage):
    mark = stage.start_and_find()
    stage.line[3].listening = False
    stage.connect().send("SET SCN_BLOCK\n")
    stage.line.wait_for(lambda r: r.slave == 3 and r.is_read(500), since=mark)


def moving(answered, wanted, count=1, pause=0.0):
    """Returns the state of a move, `pause` seconds after its request number `count` of a kind."""

    def enter(stage):
        stage.start_and_find()
        seen = []

        def script(request):
            if wanted(request):
                seen.append(request)
                if len(seen) == count and not answered:
                    return b""
            return stage.moving.behave(request)

        stage.moving.script = script
        mark = stage.ask_quietly(f"SET NID {MOVED_TO}")
        stage.line.wait_for(wanted, count, since=mark, timeout=10)
        stage.moving.script = stage.moving.behave
        time.sleep(pause)

    return enter


def many_clients(stage):
    stage.start_and_find()
    clients = [stage.connect() for _ in range(CLIENTS)]
    for client in clients:
        client.send("GET VER\n")
    for client in clients:
        client.receive_line()


def client_that_does_not_read(stage):
    stage.start_and_find()
    client = stage.connect()
    client.socket.settimeout(0.3)
    with pytest.raises(TimeoutError):
        while True:
            client.socket.send(b"GET VER\n" * 4096)


def detecting(request, expect_reset):
    """Returns the state of the blocking search for a bootloader, before or after the reset."""

    def enter(stage):
        stage.start_and_find()
        stage.line.command("fault 9 silentBootloader always")
        mark, foreign_mark = stage.line.mark(), len(stage.line.foreign)
        stage.connect().send(request + "\n")
        if expect_reset:
            stage.line.wait_for(lambda r: r.is_write(400), since=mark, timeout=10)
            foreign_mark = len(stage.line.foreign)
        eventually(lambda: len(stage.line.foreign) > foreign_mark + 2)

    return enter


def stubborn_flasher(stage):
    put_flasher(stage.folder, "trap '' TERM INT QUIT HUP; exec sleep 60")
    start_upgrade(stage)
    noted_process(stage.folder)


def real_flasher(stage):
    if not (stage.folder / "firmware").exists():
        put_real_flasher(stage.folder)
        (stage.folder / "firmware").mkdir()
        make_image(stage.folder / "firmware", "TA3-1.6.14", 20_000)
    start_upgrade(stage)
    stage.daemon.wait_for_line("Erasing")


def start_upgrade(stage):
    stage.start_and_find()
    assert stage.connect().set("UPG 1", timeout=15) == "ack"


def is_settings_read(request):
    return request.is_read(430)


def is_settings_write(request):
    return request.is_write(430)


def is_restart(request):
    return request.is_write(400)


STATES = {
    "before_any_port": (Stage, before_any_port),
    "silent_scan": (Stage, silent_scan),
    "hanging_fuser": (Stage, hanging_fuser),
    "polling": (Stage, polling),
    "unanswered_poll": (Stage, unanswered_poll),
    "unplugged": (Stage, unplugged),
    "blocking_scan": (Stage, blocking_scan),
    "move_write": (Stage, moving(False, is_settings_write)),
    "many_clients": (Stage, many_clients),
    "client_that_does_not_read": (Stage, client_that_does_not_read),
    "bootloader_of_firmware": (FlashStage, detecting("SET BLD 1", False)),
    "bootloader_after_restart": (FlashStage, detecting("SET UPG 1", True)),
    "stubborn_flasher": (FlashStage, stubborn_flasher),
}
# Each takes seconds, or test_slave_id_move_quit.py has it in every run.
SLOW_STATES = {
    "move_first_read": (Stage, moving(False, is_settings_read)),
    "move_stored_2500": (Stage, moving(True, is_settings_write, pause=0.3)),
    "move_second_read": (Stage, moving(False, is_settings_read, 2)),
    "move_before_restart_400": (Stage, moving(True, is_settings_read, 2, 0.1)),
    "move_restart": (Stage, moving(False, is_restart)),
    "move_restarting_3000": (Stage, moving(True, is_restart, pause=0.3)),
    "move_scan": (Stage, moving(True, lambda r: r.is_read(500))),
    "bootloader_by_itself": (FlashStage, detecting("SET BLD 1", True)),
    "real_flasher": (FlashStage, real_flasher),
}
CHOSEN = {**STATES, **(SLOW_STATES if LARGE else {})}


def signals_for(state):
    """Returns one signal, in turn for each state, or all of them."""
    turn = list(CHOSEN).index(state)
    return SIGNALS if LARGE else [SIGNALS[turn % len(SIGNALS)]]


def quit_cleanly(daemon, number):
    """Ends the daemon and checks that no process remains. Returns the seconds until its end."""
    children = children_of(daemon.pid)
    port_in_use = not is_not_open("/dev/ttyTool")
    status, seconds = daemon.stop(number)
    assert status == 0, daemon.lines[-20:]
    assert seconds < QUIT_LIMIT, f"{number.name}: {seconds:.2f} s"
    assert daemon.standard_output() == b""
    # A flasher that ends with the daemon is not a finished upgrade.
    assert "unmuteOnUpgradeFinished" not in daemon.messages()
    eventually(lambda: not any(is_alive(child) for child in children), 0.5, "the children's end")
    assert eventually(lambda: is_not_open("/dev/ttyTool"), 0.5), port_in_use
    assert not any(is_alive(holder) for holder in lock_holders())
    return seconds


def lock_holders():
    """Returns the process ids in the lock files. The lock of a killed flasher may remain."""
    return [int(lock.read_text().split()[0]) for lock in pathlib.Path(LOCKS).iterdir()]


@pytest.mark.parametrize("state", CHOSEN)
def test_a_quit_signal_ends_the_daemon(state, tmp_path, connect, figure):
    kind, enter = CHOSEN[state]
    numbers = signals_for(state)
    seconds = []
    with kind(tmp_path, connect) as stage:
        for number in numbers * ROUNDS:
            enter(stage)
            seconds.append(quit_cleanly(stage.daemon, number))
            stage.daemon.kill()
            stage.restore()
        stage.start()
        # The daemon reads this register only after a valid answer to the probe.
        stage.line.wait_for(lambda r: r.slave == 9 and r.is_read(514), since=stage.line.mark())
        quit_cleanly(stage.daemon, numbers[0])
    names = ", ".join(number.name for number in numbers)
    figure(
        f"{names}: {1000 * statistics.median(seconds):.0f} ms (median), "
        f"{1000 * max(seconds):.0f} ms (worst of {len(seconds)})"
    )
