"""Upgrades with a stand-in for the flasher: its start, its output and its end."""

import time

import pytest
from harness.benches import Bench, benches
from harness.upgrades import COMMAND, noted_arguments, polls_nothing, put_flasher
from harness.waiting import eventually

FAMILIES = {
    "TA": ("TA3-1.6.13", 19200, "firmware/TA3-1.6.14.bin"),
    "TB": ("TB1-1.4.2", 19200, "firmware/TB1-1.4.3.bin"),
    "TE": ("TE1-2.0.1", 115200, "firmware/TE1-2.0.2.bin"),
    "TF": ("TF1-2.0.1", 115200, "firmware/TF1-2.0.2.bin"),
}


class UpgradeBench(Bench):
    def upgrade(self):
        return self.client.set("UPG 1", timeout=15)

    def wait_for_the_unmuting(self):
        self.daemon.wait_for_line("unmuteOnUpgradeFinished", self.log_mark)

    def back_to_firmware(self):
        """Restarts the gripper with its present firmware: the stand-ins flash nothing."""
        self.line.command("restart 9")


@pytest.fixture
def make_bench(start_daemon, connect):
    with benches(UpgradeBench, start_daemon, connect) as make:
        yield make


@pytest.mark.parametrize("family", FAMILIES)
def test_command_line_file_and_rate_of_the_family(make_bench, tmp_path, family):
    version, rate, file = FAMILIES[family]
    put_flasher(tmp_path, "exit 0")
    bench = make_bench(f"9={version}")
    assert bench.upgrade() == "ack"
    assert noted_arguments(tmp_path) == [
        "-p", "/dev/ttyTool", "-b", str(rate), "-f", file, "-d", "-g",
    ]
    bench.wait_for_the_unmuting()
    expected = [COMMAND.format(rate, file)]
    # The daemon logs the start for one family only.
    if family == "TA":
        expected.append("upgrade started :  true")
    expected.append("unmuteOnUpgradeFinished")
    messages = [m for m in bench.messages() if m.startswith(("command : ", "upgrade", "unmute"))]
    # A scan may log its own commands.
    assert [m for m in messages if "fuser" not in m] == expected


@pytest.mark.parametrize("end", ["exit 5", "kill -SEGV $$"])
def test_polling_continues_after_a_flasher_that_fails(make_bench, tmp_path, end):
    put_flasher(tmp_path, end)
    bench = make_bench()
    assert bench.upgrade() == "ack"
    bench.wait_for_the_unmuting()
    bench.back_to_firmware()
    bench.line.wait_until_polled(9, 2)
    assert bench.client.get("UPG") == "0"
    assert bench.messages().count("unmuteOnUpgradeFinished") == 1


@pytest.mark.parametrize("family", ["TA", "TE"])
def test_a_missing_flasher_is_acknowledged_and_leaves_polling_muted(make_bench, family):
    bench = make_bench(f"9={FAMILIES[family][0]}")
    assert bench.upgrade() == "ack"
    assert bench.client.get("UPG") == "0"
    bench.back_to_firmware()
    assert polls_nothing(bench.line, 1.5)
    assert "unmuteOnUpgradeFinished" not in bench.messages()
    assert ("upgrade started :  false" in bench.messages()) == (family == "TA")
    assert COMMAND.format(*FAMILIES[family][1:]) in bench.messages()
    assert bench.client.set("MUTE 0") == "ack"
    bench.line.wait_until_polled(9, 2)


def test_a_flasher_that_is_not_executable_is_like_a_missing_one(make_bench, tmp_path):
    put_flasher(tmp_path, "exit 0")
    (tmp_path / "romflasher").chmod(0o644)
    bench = make_bench()
    assert bench.upgrade() == "ack"
    assert "upgrade started :  false" in bench.messages()
    assert not (tmp_path / "arguments").exists()


def test_a_second_upgrade_is_refused_while_the_first_runs(make_bench, tmp_path):
    put_flasher(tmp_path, "echo started; while ! [ -e go ]; do sleep 0.05; done")
    bench = make_bench()
    assert bench.client.get("UPG") == "0"
    assert bench.upgrade() == "ack"
    assert bench.client.get("UPG") == "1"
    bench.daemon.wait_for_line("started.n", bench.log_mark)
    mark, foreign = bench.line.mark(), len(bench.line.foreign)
    started = time.monotonic()
    assert bench.client.set("UPG 1") == "nak"
    assert bench.connect().set("UPG 1") == "nak"
    assert time.monotonic() - started < 0.5
    # Neither these requests nor polling used the line.
    time.sleep(0.3)
    assert bench.line.since(mark) == []
    assert len(bench.line.foreign) == foreign
    assert len([m for m in bench.messages() if m.startswith("command :  \"./rom")]) == 1
    assert bench.client.get("UPG") == "1"
    (tmp_path / "go").touch()
    bench.wait_for_the_unmuting()
    eventually(lambda: bench.client.get("UPG") == "0")


def test_one_of_two_simultaneous_upgrades_flashes(make_bench, tmp_path):
    """The second upgrade begins while the first waits for its gripper."""
    put_flasher(tmp_path, "while ! [ -e go ]; do sleep 0.05; done")
    bench = make_bench()
    bench.client.set("MUTE 1")
    time.sleep(0.2)
    clients = [bench.client, bench.connect()]
    for client in clients:
        client.send("SET UPG 1\n")
    assert sorted(client.receive(3, timeout=15) for client in clients) == [b"ack", b"nak"]
    commands = [m for m in bench.messages() if m.startswith("command :  \"./rom")]
    assert len(commands) == 1
    assert [m for m in bench.messages() if "QProcess" in m] == []
    (tmp_path / "go").touch()
    bench.wait_for_the_unmuting()


def test_output_and_errors_are_logged_quoted(make_bench, tmp_path):
    put_flasher(
        tmp_path,
        "printf 'one \"two\"\\nthree\\t\\n'; sleep 0.3; printf 'wrong\\n' >&2; sleep 0.3; "
        "printf 'more\\r\\n'; sleep 0.3",
    )
    bench = make_bench()
    assert bench.upgrade() == "ack"
    bench.wait_for_the_unmuting()
    quoted = [m for m in bench.messages() if m.startswith('"')]
    assert quoted == [r'"one \"two\"\nthree\t\n"', r'"wrong\n"', r'"more\r\n"']
    for line in bench.daemon.lines[bench.log_mark :]:
        if "wrong" in line:
            assert line.startswith("Info: ")


@pytest.mark.parametrize("length", [16384, 300000])
def test_output_of_any_length_is_logged_to_its_end(make_bench, tmp_path, length):
    put_flasher(
        tmp_path,
        f"(head -c {length} /dev/zero | tr '\\0' x; echo 'the error') >&2",
    )
    bench = make_bench()
    assert bench.upgrade() == "ack"
    bench.wait_for_the_unmuting()
    chunks = [m for m in bench.messages() if m.startswith('"')]
    assert [chunk[-1] for chunk in chunks] == ['"'] * len(chunks)
    assert "".join(chunk[1:-1] for chunk in chunks) == "x" * length + r"the error\n"


def test_an_upgrade_that_finds_no_bootloader_is_refused_and_starts_no_flasher(
    make_bench, tmp_path
):
    put_flasher(tmp_path, "exit 0")
    bench = make_bench()
    bench.line.command("fault 9 silentBootloader always")
    assert bench.upgrade() == "nak"
    assert not (tmp_path / "arguments").exists()
    bench.back_to_firmware()
    assert polls_nothing(bench.line, 1.5)
    assert bench.client.get("UPG") == "0"
