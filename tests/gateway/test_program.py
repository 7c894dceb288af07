"""Options, pairing on the machine, TLS, the demo."""

import contextlib
import http.client
import json
import os
import pathlib
import pwd
import shutil
import socket
import ssl
import subprocess
import warnings

import pytest
from gatewayrig import ORIGIN, PORT, Page, insecure_tls
from harness.children import binary, spawn
from harness.waiting import eventually

PROGRAM = "gripper-gateway"


def run(*words, **options):
    return subprocess.run(
        [binary(PROGRAM), *words], capture_output=True, text=True, timeout=20, **options
    )


def test_another_address_needs_tls_or_a_decision(other_address):
    refused = run("--config", "/dev/null", "--listen", other_address)
    assert refused.returncode == 2 and "--plain-http" in refused.stderr


@pytest.mark.parametrize(
    "words", [["--listen", "nothing"], ["--port", "0"], ["--port", "70000"], ["--tls-cert", "x"],
              ["--origin", "robot7"], ["--nonsense"], ["pair"], ["pair", "--role", "root"]]
)
def test_wrong_options(words):
    refused = run("--config", "/dev/null", *words)
    assert refused.returncode == 2 and refused.stderr and refused.stdout == ""


def test_help_and_version():
    assert "no safety function" in run("--help").stdout
    assert run("--version").stdout.strip().count(".") == 2


def test_options_of_the_file(tmp_path, start_gateway):
    texts = tmp_path / "faults.json"
    texts.write_text('{"Pello": {"12": "too hot"}}')
    config = tmp_path / "gateway.toml"
    config.write_text(f'name = ["a.plant", "b.plant"]\nfault-texts = "{texts}"\n')
    gateway = start_gateway(config=config)
    for name, status in (("a.plant", 401), ("b.plant", 401), ("c.plant", 421)):
        assert gateway.page().get("/api/v1/state", Host=f"{name}:{PORT}").status == status
    assert gateway.page().get("/", Host=f"A.plant:{PORT}").status == 200


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
    unit = pathlib.Path(__file__).parents[2] / "packaging/systemd/gripper-gateway.service"
    judged = subprocess.run(
        ["systemd-analyze", "security", "--offline=true", "--threshold=15", "--no-pager", unit],
        capture_output=True, text=True,
    )
    assert judged.returncode == 0, judged.stdout


def test_the_demo():
    demo = spawn(
        [binary(PROGRAM), "--demo", "--config", "/dev/null"],
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
