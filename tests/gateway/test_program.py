"""Options, pairing on the machine, TLS, the demo."""

import contextlib
import http.client
import json
import os
import pathlib
import pty
import pwd
import re
import shutil
import socket
import ssl
import subprocess
import warnings

import pytest
from gatewayrig import ORIGIN, OTHER_ADDRESS, PORT, Page, insecure_tls
from harness.children import binary, spawn
from harness.waiting import eventually

PROGRAM = "gripper-gateway"
# The modules around a QR code of the terminal.
QUIET = 2
ROOT = pathlib.Path(__file__).parents[2]


def run(*words, **options):
    return subprocess.run(
        [binary(PROGRAM), *words], capture_output=True, text=True, timeout=20, **options
    )


@pytest.mark.parametrize("address", [OTHER_ADDRESS, "0.0.0.0", "::", "2001:db8::1", "fe80::1%lo", "::ffff:127.0.0.1"])
def test_another_address_needs_tls_or_a_decision(address):
    refused = run("--config", "/dev/null", "--listen", "127.0.0.1", "--listen", address)
    assert refused.returncode == 2 and "--plain-http" in refused.stderr


@pytest.mark.parametrize(
    "words", [["--listen", "nothing"], ["--listen", "127.0.0.1:80"], ["--port", "0"], ["--port", "70000"], ["--tls-cert", "x"],
              ["--origin", "robot7"], ["--nonsense"], ["pair"], ["pair", "--role", "root"]]
)
def test_wrong_options(words):
    refused = run("--config", "/dev/null", *words)
    assert refused.returncode == 2 and refused.stderr and refused.stdout == ""


def test_help_and_version():
    assert "no safety function" in run("--help").stdout
    version = subprocess.check_output([binary("gripperctl"), "--version"], text=True)
    assert run("--version").stdout == version.replace("gripperctl", PROGRAM)


def test_options_of_the_file(tmp_path, start_gateway):
    texts = tmp_path / "faults.json"
    texts.write_text('{"Pello": {"12": "too hot"}}')
    config = tmp_path / "gateway.toml"
    config.write_text(f'name = ["a.plant", "b.plant"]\nfault-texts = "{texts}"\n')
    gateway = start_gateway(config=config)
    for name, status in (("a.plant", 401), ("b.plant", 401), ("c.plant", 421)):
        assert gateway.page().get("/api/v1/state", Host=f"{name}:{PORT}").status == status
    assert gateway.page().get("/", Host=f"A.plant:{PORT}").status == 200


@pytest.mark.parametrize("text,line,said", [
    ('port = 63353\nnmae = ["robot7"]', 2, "there is no option --nmae; did you mean --name?"),
    ('port = "high"', 1, "--port takes a number from 1 to 65535, not high"),
    ("port = [1, 2]", 1, "--port takes one value"),
    ("plain-http = 5", 1, "--plain-http takes true or false, not 5"),
    ('listen = ["192.0.2.7", "plant"]', 1, "--listen takes an IP address, not plant"),
    ('daemon = "a:b:c"', 1, "--daemon takes HOST or HOST:PORT, not a:b:c"),
    ('\norigin = "robot7"', 2, "--origin takes an origin such as https://robot7.plant, not robot7"),
    ('fault-texts = "/none"', 1, "--fault-texts takes the path of a file, not /none"),
    ("tls-key = { file = 1 }", 1, "there is no command tls-key"),
    ("demo = true", 1, "--demo works only on the command line"),
    ('[pair]\nrole = "view"', 2, "--role works only on the command line"),
    ("listen = [", 1, "Error while parsing array: encountered end-of-file"),
    ("# " + 16383 * "x", None, "is larger than 16384 bytes"),
])
@pytest.mark.parametrize("words", [[], ["pair", "--role", "view"]], ids=["serve", "pair"])
def test_a_wrong_file_is_reported_with_its_line(tmp_path, words, text, line, said):
    config = tmp_path / "gateway.toml"
    config.write_text(text)
    place = f"{config}, line {line}: " if line else f"{config} "
    refused = run("--config", config, *words)
    assert (refused.returncode, refused.stdout) == (2, "")
    assert refused.stderr == f"gripper-gateway: configuration file {place}{said}\n"


def test_a_file_that_is_not_readable_is_reported(tmp_path):
    for path, said in ((tmp_path / "none", "is not readable: No such file or directory"),
                       (tmp_path, "is not a file, but a folder, a pipe or a device")):
        refused = run("--config", path)
        assert (refused.returncode, refused.stderr) == (2, f"gripper-gateway: configuration file {path} {said}\n")


def test_the_sample_of_the_package_names_real_options(tmp_path):
    """Its lines are comments. Each of them is right after the removal of the first two characters."""
    sample = (ROOT / "packaging/gripper-gateway.toml").read_text(encoding="utf-8")
    config = tmp_path / "gateway.toml"
    base = ["--config", config, "--pair-socket", tmp_path / "none"]
    config.write_text(sample)
    assert "cannot ask the gateway" in run(*base, "pair", "--role", "view").stderr
    options = re.findall(r"^# ([a-z-]+ = .*)$", sample, re.MULTILINE)
    # The metrics are off, or have options.
    for excluded in ("no-metrics", "metrics-listen|expect"):
        lines = [option for option in options if not re.match(excluded, option)]
        config.write_text("\n".join(lines).replace("/etc/gripper-gateway/faults.json", "/etc/passwd"))
        assert "cannot ask the gateway" in run(*base, "pair", "--role", "view").stderr
    # A sample without one of the options would not help.
    known = set(re.findall(r"^  --([a-z-]+)", run("--help").stdout, re.MULTILINE))
    assert {option.split(" ")[0] for option in options} == known - {"config", "demo", "version"}


def test_errors_of_the_start_say_what_is_wrong(tmp_path):
    base = ["--config", "/dev/null", "--pair-socket", str(tmp_path / "pair.sock")]
    with socket.create_server(("127.0.0.1", PORT)):
        assert "cannot listen on 127.0.0.1" in run(*base).stderr
    broken = tmp_path / "broken.json"
    broken.write_text("[]")
    assert "expected an object" in run(*base, "--fault-texts", str(broken)).stderr
    assert "choose another one" in run("--config", "/dev/null", "--pair-socket", "/no/x").stderr
    missing = run(*base, "--tls-cert", str(broken), "--tls-key", str(broken))
    assert "cannot use the certificate" in missing.stderr and missing.returncode == 1


def test_viewing_on_another_address_needs_a_token(other_address, start_gateway):
    host = f"{other_address}:{PORT}"
    gateway = start_gateway("--listen", other_address, "--plain-http", host=host)
    gateway.connect = lambda: http.client.HTTPConnection(other_address, PORT, timeout=5)
    assert gateway.page().get("/").status == 200
    for path in ("/api/v1/state", "/api/v1/stream", "/api/v1/history?gripper=9", "/api/v1/jobs/1"):
        assert gateway.page().get(path).status == 401
        # The loopback interface is another way to the same machine, but not this host.
        assert gateway.page().get(path, Host=f"localhost:{PORT}").status == 421
    assert gateway.page("view").get("/api/v1/state").status == 200


def test_viewing_can_need_a_token_everywhere(start_gateway):
    gateway = start_gateway("--view-needs-token")
    assert gateway.page().get("/api/v1/state").status == 401
    assert gateway.page("view").get("/api/v1/state").status == 200


def test_a_reverse_proxy(start_gateway):
    proxy = "https://robot7.plant"
    gateway = start_gateway("--origin", proxy)
    code = gateway.pair_code("operate")
    page = Page(gateway)
    assert page.get("/api/v1/state", X_Forwarded_For="192.0.2.1").status == 401
    assert page.post("session", {"code": code}, Host="robot7.plant", Origin=ORIGIN).status == 403
    assert page.post("session", {"code": code}, Host="robot7.plant", Origin=proxy).status == 201


def test_tls(certificate, start_gateway):
    gateway = start_gateway(
        "--tls-cert", certificate[0], "--tls-key", certificate[1], tls=insecure_tls()
    )
    page = gateway.page("operate")
    assert page.state()["you"]["role"] == "operate"
    assert page.post("control", Origin=ORIGIN).status == 403
    stream = page.stream()
    stream.wait_for("picture")
    stream.wait_for("change")
    stream.close()
    plain = socket.create_connection(("127.0.0.1", PORT), 5)
    plain.sendall(b"GET / HTTP/1.1\r\n\r\n")
    assert b"HTTP" not in plain.recv(100)
    plain.close()
    old = insecure_tls()
    with warnings.catch_warnings():
        warnings.simplefilter("ignore", DeprecationWarning)
        old.minimum_version = old.maximum_version = ssl.TLSVersion.TLSv1_1
    with contextlib.closing(socket.create_connection(("127.0.0.1", PORT), 5)) as peer:
        with pytest.raises(OSError):
            old.wrap_socket(peer)


def test_only_root_and_the_group_may_pair(tmp_path, start_gateway):
    gateway = start_gateway("--pair-group", "games")
    tmp_path.chmod(0o755)
    for folder in tmp_path.parents:
        if str(folder).startswith("/tmp/"):
            folder.chmod(0o755)
    nobody = pwd.getpwnam("nobody")

    def ask(groups):
        def drop():
            os.setgroups(groups)
            os.setresgid(nobody.pw_gid, nobody.pw_gid, nobody.pw_gid)
            os.setresuid(nobody.pw_uid, nobody.pw_uid, nobody.pw_uid)

        # The gateway may refuse the peer before it asks.
        script = """
import contextlib, socket, sys
s = socket.socket(socket.AF_UNIX)
s.connect(sys.argv[1])
with contextlib.suppress(BrokenPipeError):
    s.sendall(b'{"role": "maintain"}\\n')
print(s.recv(500).decode())
"""
        child = spawn(
            ["/usr/bin/python3", "-c", script, str(gateway.pair_socket)], drop,
            stdout=subprocess.PIPE, text=True,
        )
        return json.loads(child.communicate(timeout=10)[0])

    try:
        os.setgroups(os.getgroups())
    except PermissionError:
        pytest.skip("an ordinary user cannot become another one")
    games = 60
    assert "code" in ask([games])
    assert "error" in ask([]) and "code" not in ask([])
    assert gateway.pair_code("view")


def test_a_terminal_shows_a_qr_code(start_gateway):
    gateway = start_gateway()
    master, slave = pty.openpty()
    words = ["pair", "--config", "/dev/null", "--role", "operate", "--pair-socket", str(gateway.pair_socket)]
    child = spawn([binary(PROGRAM), *words], stdout=slave)
    os.close(slave)
    text = b""
    with contextlib.suppress(OSError):  # The end of a terminal is an error.
        while part := os.read(master, 4096):
            text += part
    os.close(master)
    assert child.wait(10) == 0
    lines = text.decode().replace("\r", "").split("\n")
    drawn = [line.removeprefix("\033[30;107m").removesuffix("\033[0m") for line in lines if line.startswith("\033[")]
    # Two rows of modules in a line of characters.
    rows = [[each in dark for each in line] for line in drawn for dark in ("▀█", "▄█")]
    width = len(rows[0])
    side = width - 2 * QUIET
    assert all(len(row) == width for row in rows) and width <= len(rows) <= width + 1
    # A QR code has 17 + 4 n modules, and a square with a frame in three of its corners.
    assert side % 4 == 1 and side >= 21
    corner = ["1111111", "1000001", "1011101", "1011101", "1011101", "1000001", "1111111"]

    def part(top, left):
        return ["".join(str(int(each)) for each in row[left:left + 7]) for row in rows[top:top + 7]]

    far = width - QUIET - 7
    assert part(QUIET, QUIET) == part(QUIET, far) == part(far, QUIET) == corner != part(far, far)
    assert re.search(r"^The code \w{4}-\w{4} works once", "\n".join(lines), re.MULTILINE)


def test_a_wrong_request_for_a_code(start_gateway):
    gateway = start_gateway()
    for line in (b"{}\n", b"\n", b'{"role": 1}\n', b'{"role": "root"}\n', b"x" * 300 + b"\n"):
        with socket.socket(socket.AF_UNIX) as peer:
            peer.settimeout(5)
            peer.connect(str(gateway.pair_socket))
            peer.sendall(line)
            try:
                answer = peer.recv(1000)
            except ConnectionResetError:
                answer = b""
            assert b"code" not in answer
    assert gateway.pair_code("view")


def test_the_unit_is_hardened():
    if not shutil.which("systemd-analyze"):
        pytest.skip("no systemd-analyze here")
    unit = ROOT / "packaging/systemd/gripper-gateway.service"
    judged = subprocess.run(
        ["systemd-analyze", "security", "--offline=true", "--threshold=15", "--no-pager", unit],
        capture_output=True, text=True,
    )
    assert judged.returncode == 0, judged.stdout


@pytest.fixture
def slow_start(tmp_path):
    """The demo's programs, with a simulator whose gripper 2 misses the first scan."""
    folder = tmp_path / "bin"
    folder.mkdir()
    shutil.copy(binary(PROGRAM), folder)
    for name in ("gripperd", "romflasher", "gripper-firmware-image"):
        (folder / name).symlink_to(binary(name))
    (tmp_path / "libexec/gripperd").mkdir(parents=True)
    (tmp_path / "libexec/gripperd/isolated").symlink_to(ROOT / "scripts/isolated")
    simulator = folder / "gripper-simulator"
    simulator.write_text(f'#!/bin/bash\nexec {binary(simulator.name)} "$@" <<<"fault 2 silent 1"\n')
    simulator.chmod(0o755)
    return folder / PROGRAM


@pytest.mark.parametrize("start", ["quick", "slow"])
def test_the_demo(tmp_path, request, start):
    # The demo shows its own daemon, and no other one that the options name.
    config = tmp_path / "gateway.toml"
    config.write_text('daemon = "127.0.0.1:9"\n')
    program = request.getfixturevalue("slow_start") if start == "slow" else binary(PROGRAM)
    demo = spawn(
        [program, "--demo", "--config", config],
        stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True,
    )
    try:
        url = demo.stdout.readline()
        assert url.startswith(f"{ORIGIN}/#code=")

        def state():
            with contextlib.closing(http.client.HTTPConnection("127.0.0.1", PORT, timeout=5)) as peer:
                peer.request("GET", "/api/v1/state", headers={"Host": f"localhost:{PORT}"})
                return json.loads(peer.getresponse().read())

        found = eventually(lambda: (s := state()) and len(s["grippers"]) == 2 and s)
        assert [each["firmware"] for each in found["grippers"]] == ["TE1-2.0.2", "TA3-1.6.13"]
    finally:
        demo.terminate()
        assert demo.wait(10) == 0
        demo.stdout.close()
        demo.stderr.close()
