"""gripperctl doctor: each seeded defect is named, on an otherwise healthy machine."""

import contextlib
import json
import os
import pathlib
import re
import shutil
import signal
import socket
import subprocess
import sys
import tarfile
import time

import pytest
from harness import gripperctl, protocoltable
from harness.children import binary, spawn
from harness.client import PORT, Client
from harness.daemon import is_listening
from harness.doctorbench import DoctorBench, changed, named, ports, put_program
from harness.gripperctl import ctl, fail
from harness.waiting import eventually

ROOT = pathlib.Path(__file__).resolve().parents[2]
USB_LOCK = pathlib.Path("/run/lock/LCK..ttyUSB0")


@pytest.fixture(scope="module")
def bench(start_module_daemon, tmp_path_factory):
    with ports(), DoctorBench(start_module_daemon, tmp_path_factory.mktemp("machine")) as bench:
        yield bench


def sees_all_files():
    """Whether this process sees the open files of other users, as root does outside of user namespaces."""
    try:
        os.listdir("/proc/1/fd")
    except PermissionError:
        return False
    return True


# The defects. Each yields while the machine has it.


@contextlib.contextmanager
def process(*words):
    child = spawn(words, stdout=subprocess.DEVNULL)
    try:
        yield child
    finally:
        child.kill()
        child.wait()


@contextlib.contextmanager
def stopped_daemon(bench):
    """The service does not run."""
    bench.daemon.finish()
    with bench.changed_unit(MainPID="0"):
        yield
    bench.start()


@contextlib.contextmanager
def other_program_with_the_port(bench):
    listen = f"import socket, time; s = socket.create_server(('', {PORT})); time.sleep(60)"
    with stopped_daemon(bench), process(sys.executable, "-c", listen):
        eventually(is_listening)
        yield


@contextlib.contextmanager
def hanging_daemon(bench):
    os.kill(bench.daemon.pid, signal.SIGSTOP)
    os.waitid(os.P_PID, bench.daemon.pid, os.WSTOPPED | os.WNOWAIT)
    yield
    os.kill(bench.daemon.pid, signal.SIGCONT)


def unit(**properties):
    return lambda bench: bench.changed_unit(**properties)


@contextlib.contextmanager
def locked_by_root_before(bench):
    with process("true") as ended:
        ended.wait()
    USB_LOCK.write_text(f"{ended.pid}\ngripperd\n{socket.gethostname()}\n")
    if os.geteuid() == 0:
        try:
            os.chown(USB_LOCK, 65534, -1)
        except OSError:
            pytest.skip("only the machine's root can give a file away")
    yield
    USB_LOCK.unlink()


@contextlib.contextmanager
def lock_file(text):
    USB_LOCK.write_text(text)
    yield
    USB_LOCK.unlink()


def locked_by_other_program(bench):
    program = os.path.basename(os.readlink("/proc/self/exe"))
    return lock_file(f"{os.getpid()}\n{program}\n{socket.gethostname()}\n")


def locked_on_other_host(bench):
    return lock_file(f"{bench.daemon.pid + 1}\nminicom\nother-host\n")


@contextlib.contextmanager
def forbidden_port(bench):
    mode = os.stat("/dev/ttyUSB0").st_mode
    os.chmod("/dev/ttyUSB0", 0)
    yield
    os.chmod("/dev/ttyUSB0", mode & 0o777)


@contextlib.contextmanager
def held_port(bench):
    holder = os.open("/dev/ttyUSB0", os.O_RDWR | os.O_NOCTTY)
    yield
    os.close(holder)


@contextlib.contextmanager
def modem_manager(bench):
    program = bench.folder / "ModemManager"
    shutil.copy("/bin/sleep", program)
    bench.put_udev(usb="ID_MODEL=adapter")
    with process(program, "60"):
        yield
    bench.put_udev(tty="ID_MM_DEVICE_IGNORE=1")


@contextlib.contextmanager
def braille_display(bench):
    bench.put_udev(tty="ID_MM_DEVICE_IGNORE=1", usb="BRLTTY_BRAILLE_DRIVER=eu")
    yield
    bench.put_udev(tty="ID_MM_DEVICE_IGNORE=1")


def adapter_value(name, value):
    return lambda bench: changed(bench.adapter / name, value)


@contextlib.contextmanager
def other_tool_link(bench, target):
    os.unlink("/dev/ttyTool")
    os.symlink(target, "/dev/ttyTool")
    yield
    os.unlink("/dev/ttyTool")
    os.symlink("ttyUSB0", "/dev/ttyTool")


def dangling_tool_link(bench):
    return other_tool_link(bench, "ttyUSB9")


@contextlib.contextmanager
def tool_link_to_a_file(bench):
    file = bench.folder / "file"
    file.touch()
    with other_tool_link(bench, file):
        yield


def empty_image(bench):
    return changed(bench.work / "firmware/TB1-1.4.3.bin", "")


@contextlib.contextmanager
def missing(path):
    path.rename(path.with_name("away"))
    yield
    path.with_name("away").rename(path)


def log(*lines):
    return lambda bench: changed(bench.journal, "".join(f"Info: {line}\n" for line in lines))


@contextlib.contextmanager
def silent_gripper(bench):
    bench.line[9].listening = False
    with Client() as client:
        eventually(lambda: client.get("DRI") == "ERR_TIMEOUT", 20)
    yield
    bench.line[9].listening = True
    bench.daemon.wait_until_found(9, since=bench.daemon.mark())


# The name, the seed, the checks that name it, and options of doctor.
DEFECTS = [
    ("nothing listens", stopped_daemon, {"port"}),
    ("another program has the port", other_program_with_the_port, {"port"}),
    ("the daemon hangs", hanging_daemon, {"port"}),
    ("a daemon started by hand has the port", unit(MainPID="0", ActiveState="activating", SubState="auto-restart", NRestarts="57"), {"port", "unit"}),
    ("the service restarts again and again", unit(ActiveState="activating", SubState="start", NRestarts="3"), {"unit"}),
    ("the service has failed", unit(ActiveState="failed", SubState="failed", Result="exit-code"), {"unit"}),
    ("the service is masked", unit(LoadState="masked"), {"unit"}),
    ("the service is disabled", unit(UnitFileState="disabled"), {"unit"}),
    ("the address filter excludes localhost", unit(IPAddressAllow="192.168.7.0/24"), {"address-filter"}),
    ("the daemon's user may not open the port", forbidden_port, {"permissions"}),
    ("a drop-in narrows DeviceAllow", unit(DevicePolicy="strict", DeviceAllow="char-ttyACM rw"), {"device-policy"}),
    ("a stale lock file of root", locked_by_root_before, {"locks"}),
    ("a lock file of another program", locked_by_other_program, {"locks"}),
    ("a lock file of another host", locked_on_other_host, {"locks"}),
    ("another process has the port open", held_port, {"holders"}),
    ("ModemManager may use the adapter", modem_manager, {"modem-manager"}),
    ("brltty takes the adapter", braille_display, {"braille"}),
    ("a latency timer of 16 ms", adapter_value("latency_timer", "16"), {"latency"}),
    ("USB autosuspend", adapter_value("power/control", "auto"), {"autosuspend"}),
    ("ttyTool leads to nothing", dangling_tool_link, {"tool-link"}),
    ("ttyTool is no port", tool_link_to_a_file, {"tool-link"}),
    ("an empty firmware image", empty_image, {"images"}),
    ("romflasher is missing", lambda bench: missing(bench.work / "romflasher"), {"programs"}),
    ("a gripper was lost", log("gripper->updateInput() fail counter:  5"), {"journal"}),
    ("log lines were lost", log("log lines lost because nobody read them: 12"), {"journal"}),
    ("the link does not run", silent_gripper, {"link"}),
    ("an expected gripper is missing", lambda bench: contextlib.nullcontext(), {"grippers"}, "--expect", "2,9"),
]


def test_a_healthy_machine_has_no_finding(bench, figure):
    begin = time.monotonic()
    code, report = bench.run("--expect", "9")
    figure(f"gripperctl doctor took {time.monotonic() - begin:.2f} s")
    levels = ["note", "problem"] + ["unseen"] * sees_all_files()
    assert [finding for finding in report["findings"] if finding["level"] in levels] == []
    assert (code, report["problems"]) == (gripperctl.DONE, [])
    assert len({finding["check"] for finding in report["findings"]}) == 17


@pytest.mark.parametrize("seed,checks,words", [(d[1], d[2], d[3:]) for d in DEFECTS], ids=[d[0] for d in DEFECTS])
def test_each_defect_is_named_and_no_other(bench, seed, checks, words):
    with seed(bench):
        code, report = bench.run(*words)
    assert named(report, "problem") == set(report["problems"]) == checks, report
    assert named(report, "note") == set(), report
    assert code == gripperctl.REFUSED and report["exitCode"] == code
    for finding in report["findings"]:
        assert finding["result"]
        assert (finding["level"] == "ok") == (finding["meaning"] == "") == (finding["action"] == "")


@pytest.mark.parametrize("seed,check", [
    (log("gripper->updateInput() fail counter:  1"), "journal"),
    (unit(LoadState="not-found", ActiveState="inactive", MainPID="0"), "unit"),
    (unit(ActiveState="inactive", MainPID="0"), "unit"),
    (unit(NeedDaemonReload="yes"), "unit"),
    (unit(IPAddressAllow="", IPAddressDeny=""), "address-filter"),
    (lambda bench: missing(bench.work / "firmware/TA3-1.6.14.bin"), "images"),
    (lambda bench: lock_file("?\n"), "locks"),
], ids=["repeated request", "no unit", "stopped unit", "changed unit", "no filter", "no image", "stale lock"])
def test_a_note_does_not_change_the_exit_code(bench, seed, check):
    with seed(bench):
        code, report = bench.run()
    assert named(report, "problem", "note") == {check}, report
    assert code == gripperctl.DONE


def test_the_text_has_the_meaning_and_the_action(bench):
    bench.put_unit()
    with adapter_value("latency_timer", "16")(bench):
        run = ctl("doctor", env=bench.environment())
    assert run.returncode == gripperctl.REFUSED
    assert run.stderr == "gripperctl: problems found: latency\n"
    lines = run.stdout.splitlines()
    at = lines.index("problem  latency         the latency timer of /dev/ttyUSB0 is 16 ms")
    assert lines[at + 1].strip().startswith("Every answer of a gripper is late")
    assert lines[at + 2].strip().startswith("-> Run: echo 1 | sudo tee /sys/")
    assert [line.strip()[:3] for line in lines].count("-> ") == 1
    assert f"gripperd (process {bench.daemon.pid}) has port {PORT}, and gripperd answers" in lines[0]


def test_programs_that_hang_do_not_delay_it(bench):
    with changed(bench.programs / "systemctl", "#!/bin/sh\nsleep 60\n"), changed(
        bench.programs / "journalctl", "#!/bin/sh\nsleep 60 & wait\n"
    ), hanging_daemon(bench):
        code, report = bench.run()
    assert code == gripperctl.REFUSED and named(report, "problem") == {"port"}
    assert {"unit", "journal"} <= named(report, "unseen")


def test_a_machine_without_systemd(bench):
    with missing(bench.programs / "systemctl"), missing_journalctl(bench):
        code, report = bench.run(env={**os.environ, "PATH": str(bench.programs)})
    assert code == gripperctl.DONE and named(report, "problem", "note") == set(), report
    assert {"unit", "address-filter", "device-policy", "journal"} <= named(report, "unseen")


@contextlib.contextmanager
def missing_journalctl(bench):
    path = bench.programs / "journalctl"
    text = path.read_text()
    path.unlink()
    yield
    put_program(path, text)


@pytest.mark.parametrize("has_systemd", [False, True])
def test_an_ordinary_user_learns_what_root_would_see(bench, has_systemd):
    if not sees_all_files():
        pytest.skip("this test needs the machine's root")
    # The user may not enter the folders of the test.
    folder = pathlib.Path("/dev/shm/user")
    folder.mkdir()
    program = shutil.copy(binary("gripperctl"), folder)
    bench.put_unit()
    shutil.copy(bench.folder / "unit.show", folder)
    if has_systemd:
        put_program(folder / "systemctl", f"#!/bin/sh\nexec cat {folder}/unit.show\n")
    words = ["setpriv", "--reuid=65534", "--regid=65534", "--clear-groups", program, "--json", "doctor"]
    # The user may not read the settings of root either.
    env = {**os.environ, "HOME": str(folder), "PATH": f"{folder}:{os.environ['PATH']}"}
    with forbidden_port(bench):
        run = subprocess.run(words, capture_output=True, text=True, timeout=20, cwd="/", env=env, check=False)
    shutil.rmtree(folder)
    report = json.loads(run.stdout)
    by_check = {finding["check"]: finding for finding in report["findings"]}
    assert by_check["holders"]["level"] == "unseen" and "sudo" in by_check["holders"]["action"]
    assert by_check["port"]["result"] == f"a process of user 0 has port {PORT}, and gripperd answers"
    assert by_check["locks"]["level"] == "ok"
    # The unit names the process of the daemon, whose rights every user sees.
    assert by_check["permissions"]["level"] == ("problem" if has_systemd else "unseen")
    assert run.returncode == (gripperctl.REFUSED if has_systemd else gripperctl.DONE), report


def test_another_machine_is_seen_over_tcp_only(bench):
    subprocess.run(["ip", "address", "add", "10.77.0.1/32", "dev", "lo"], check=True)
    code, report = bench.run("--host", "10.77.0.1", "--expect", "2")
    assert (code, report["problems"]) == (gripperctl.REFUSED, ["grippers"])
    assert [f["check"] for f in report["findings"]] == ["port", "link", "grippers", "machine"]
    code, report = bench.run("--host", "10.77.0.1:9")
    assert (code, report["problems"]) == (gripperctl.REFUSED, ["port"])


def test_the_images_are_those_of_the_daemon():
    source = (ROOT / "tools/gripperctl/doctor/upgradechecks.cpp").read_text()
    rows = set(re.findall(r"\{'(.)', \"(\S+)\"\}", source))
    assert rows == {(row["code"][1], row["firmwareImage"]) for row in protocoltable.rows("families")}


# The bundle


def test_the_bundle_has_the_facts_for_support(bench, tmp_path):
    bundle = tmp_path / "support.tar.gz"
    with adapter_value("latency_timer", "16")(bench):
        code, report = bench.run("--bundle", bundle)
    assert code == gripperctl.REFUSED and report["bundle"] == str(bundle)
    assert os.stat(bundle).st_mode & 0o777 == 0o600
    assert os.listdir(tmp_path) == ["support.tar.gz"]
    with tarfile.open(bundle) as archive:
        files = {
            os.path.basename(member.name): archive.extractfile(member).read().decode()
            for member in archive.getmembers() if member.isfile()
        }
    page = (ROOT / "man/gripperctl.1").read_text()
    assert set(files) == set(re.findall(r"^\.I (\w+\.(?:json|txt))$", page, re.MULTILINE))
    packed = json.loads(files["doctor.json"])
    assert packed["findings"] == report["findings"]
    assert json.loads(files["status.json"])["grippers"][0]["id"] == 9
    assert "latency_timer: 16" in files["machine.txt"] and "idVendor: 0403" in files["machine.txt"]
    assert "LoadState=loaded" in files["unit.txt"] and "User=root" in files["unit.txt"]
    assert "Environment=(removed)" in files["unit.txt"]
    assert files["journal.txt"] == bench.journal.read_text()
    assert "MZV-" in files["versions.txt"]
    assert not any("hidden" in text or "more" in text.split() for text in files.values())


def test_the_bundle_replaces_no_file(bench, tmp_path):
    bundle = tmp_path / "mine"
    bundle.write_text("mine")
    assert "exists" in fail(gripperctl.LOCAL, "doctor", "--bundle", bundle)
    assert bundle.read_text() == "mine"
    text = fail(gripperctl.LOCAL, "doctor", "--bundle", tmp_path / "none" / "file", env=bench.environment())
    assert "No such file or directory" in text


def test_a_bundle_that_fails_leaves_nothing(bench, tmp_path):
    put_program(bench.programs / "tar", "#!/bin/sh\necho the disk is full >&2\nexit 2\n")
    bench.put_unit()
    text = fail(gripperctl.LOCAL, "doctor", "--bundle", tmp_path / "file", env=bench.environment())
    (bench.programs / "tar").unlink()
    assert "tar failed: the disk is full" in text
    assert os.listdir(tmp_path) == []


CHANGES = re.compile(r"(mkdir|rmdir|unlink|rename|link|symlink|mknod|f?chmod|f?chown|truncate|utime)\w*\(")


def path_of(call):
    """Returns the first path of a system call that strace -y shows; empty for a call on a descriptor."""
    at = re.match(r"\w+\((?:AT_FDCWD|\d+)<([^>]*)>, \"([^\"]*)\"", call)
    if at:
        return os.path.join(at[1], at[2])
    path = re.match(r"\w+\(\"([^\"]*)\"", call)
    return os.path.abspath(path[1]) if path else ""


def test_it_opens_no_port_and_writes_only_the_bundle(bench, tmp_path):
    bundle = tmp_path / "support.tar.gz"
    trace = tmp_path / "trace"
    bench.put_unit()
    # The sanitizer finds no leaks in a traced process.
    env = {**bench.environment(), "ASAN_OPTIONS": "detect_leaks=0"}
    words = ["strace", "-f", "-y", "-e", "trace=%file,%desc", "-o", trace, binary("gripperctl")]
    words += ["doctor", "--bundle", bundle]
    run = subprocess.run(words, capture_output=True, text=True, timeout=60, env=env, check=False)
    if "Operation not permitted" in run.stderr:
        pytest.skip("this machine does not allow strace")
    assert run.returncode == gripperctl.DONE, run
    opened, changed_paths = [], []
    for line in trace.read_text(errors="replace").splitlines():
        call = line.split(None, 1)[1]
        path = path_of(call)
        if re.match(r"open(at2?)?\(|creat\(", call):
            opened.append(path)
            if re.search(r"O_WRONLY|O_RDWR|O_CREAT|O_TRUNC", call):
                changed_paths.append(path)
        elif CHANGES.match(call) and path:
            changed_paths.append(path)
    assert "/proc/devices" in opened and len(changed_paths) > 5
    assert {path for path in opened if path.startswith("/dev/")} == {"/dev/null"}
    assert {path for path in changed_paths if not path.startswith(str(bundle))} == {"/dev/null"}
