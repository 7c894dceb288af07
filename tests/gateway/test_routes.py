"""Every route, against the OpenAPI document: Page and Stream check each answer with it."""

import json
import re
import subprocess

import pytest
from gatewayrig import API, PORT, validate
from harness.children import binary
from harness.client import Client
from harness.effort import effort
from harness.waiting import eventually

LIMIT = 250 * 1024
CSP = "default-src 'none'"


@pytest.fixture
def operator(module_gateway):
    page = module_gateway.operator("maintain")
    yield page
    page.take_control(takeOver=True)
    ends = [page.begin(f"grippers/{each['id']}/deactivate") for each in page.state()["grippers"]]
    for end in ends:
        page.outcome(end)


def test_the_state_shows_the_line(module_gateway, simulated):
    state = module_gateway.page().state()
    assert state["line"]["state"] == "connected" and not state["line"]["stale"]
    assert state["line"]["version"] == "MZV-2.0.0"
    assert state["you"] == {"role": "view", "paired": False, "expiresInSeconds": None}
    version = subprocess.check_output([binary("gripper-gateway"), "--version"], text=True)
    assert version == f"gripper-gateway {state['gateway']['version']}\n"
    vacuum, fingers = state["grippers"]
    assert (vacuum["id"], vacuum["family"], vacuum["kind"]) == (2, "Zentra", "vacuum")
    assert (fingers["id"], fingers["family"], fingers["kind"]) == (9, "Pello", "fingers")
    assert fingers["firmware"] == "TA3-1.6.14" and fingers["serial"] == "SIM-1009"
    simulated.command("pin 9 2002 0x4d07")
    eventually(lambda: module_gateway.page().gripper(9)["position"] == 0x4D)
    simulated.command("release 9 2002")


def test_the_families_are_those_of_the_gripper_client(module_gateway):
    """gripperctl has the names too; its tests compare them with the simulator."""
    out = subprocess.run(
        [binary("gripperctl"), "--json", "status"], capture_output=True, text=True, check=True
    )
    names = {each["id"]: each["family"] for each in json.loads(out.stdout)["grippers"]}
    state = module_gateway.page().state()
    assert {each["id"]: each["family"] for each in state["grippers"]} == names


def test_a_movement_from_the_page_to_the_outcome(operator, simulated):
    stream = operator.stream()
    stream.wait_for("picture")
    assert operator.do("grippers/9/activate")["code"] == "ok"
    outcome = operator.do("grippers/9/move", position=90, speed=255, force=20)
    assert outcome["code"] == "ok" and outcome["object"] == "reached"
    assert outcome["position"] == 90
    stream.wait_for("event", lambda event: event["kind"] == "arrived" and event["gripper"] == 9)
    stream.wait_for(
        "change",
        lambda change: any(
            each["id"] == 9 and each["position"] == 90 and each["echo"] == each["request"] == 90
            for each in change["grippers"]
        ),
    )
    stream.wait_for("job", lambda job: job["action"] == "move" and job["state"] == "done")
    assert not operator.gripper(9)["commandedByOther"]
    stream.validate()
    stream.close()


def test_a_movement_onto_an_object(operator, simulated):
    simulated.command("object 9 100")
    operator.do("grippers/9/activate")
    stream = operator.stream()
    stream.wait_for("picture")
    outcome = operator.do("grippers/9/move", position=255)
    event = stream.wait_for("event", lambda event: event["kind"] == "object-met")
    stream.close()
    simulated.command("object 9 none")
    assert outcome["object"] == "met" and outcome["position"] == 100
    assert event["gripper"] == 9 and event["text"] == "gripper 9 holds an object"


def test_the_other_commands(operator, simulated):
    operator.do("grippers/2/activate")
    assert operator.do("grippers/2/led", red=True, green=False, blue=True)["code"] == "ok"
    eventually(lambda: operator.gripper(2)["led"] == dict(auto=False, red=True, green=False, blue=True))
    assert operator.do("grippers/2/led", auto=True)["code"] == "ok"
    assert operator.do("grippers/2/mode", mode=1)["code"] == "ok"
    eventually(lambda: operator.gripper(2)["mode"] == 1)
    assert operator.do("grippers/2/release")["code"] == "ok"
    refused = operator.do("grippers/2/move", position=9)
    assert refused["code"] == "fault" and refused["fault"] == 2
    assert operator.do("grippers/2/activate", again=True)["code"] == "ok"
    assert operator.do("grippers/2/deactivate")["code"] == "ok"
    assert operator.do("scan")["ids"] == [2, 9]


def test_a_stop_needs_no_lease_and_ends_the_movement(module_gateway, operator, simulated):
    operator.do("grippers/9/activate")
    moving = operator.begin("grippers/9/move", position=255, speed=0)
    eventually(lambda: operator.gripper(9)["echo"] == 255)
    other = module_gateway.page("operate")
    answer = other.post("grippers/9/stop")
    assert answer.status == 202
    assert other.outcome(answer.json()["job"]["id"])["code"] == "ok"
    assert operator.outcome(moving)["code"] == "superseded"
    eventually(lambda: operator.gripper(9)["goTo"] is False)


def test_a_stop_right_after_a_movement_wins(operator, simulated):
    """The call of the movement may not have sent its SET when the stop begins."""
    operator.do("grippers/9/activate")
    for position in [10, 200] * effort(2, 100):
        moving = operator.begin("grippers/9/move", position=position, speed=0)
        stop = operator.post("grippers/9/stop").json()["job"]["id"]
        assert operator.outcome(stop)["code"] == "ok"
        assert operator.outcome(moving)["code"] in ("superseded", "ok")
        simulated.wait_until_polled(9, 2)
        assert operator.gripper(9)["goTo"] is False


def test_a_later_movement_replaces_the_earlier_one(operator, simulated):
    operator.do("grippers/9/activate")
    simulated.command("object 9 none")
    jobs = [operator.begin("grippers/9/move", position=p, speed=0) for p in (250, 240, 30)]
    outcomes = [operator.outcome(job) for job in jobs]
    assert [each["code"] for each in outcomes] == ["superseded", "superseded", "ok"]
    assert outcomes[-1]["position"] == 30 == simulated.registers(9, 2002)[0] >> 8
    # The picture is one look older than the outcome.
    eventually(lambda: operator.gripper(9)["position"] == 30)


def test_another_job_of_the_gripper_is_refused(operator, simulated):
    operator.do("grippers/9/activate")
    moving = operator.begin("grippers/9/move", position=60, speed=0)
    for path, members in (("grippers/9/activate", {}), ("scan", {})):
        answer = operator.post(path, {"lease": operator.key, **members})
        assert answer.status == 409 and answer.code == "busy"
    assert operator.outcome(moving)["code"] == "ok"


def test_a_command_of_another_client_shows(operator):
    operator.do("grippers/9/activate")
    operator.do("grippers/9/move", position=50)
    client = Client()
    assert client.set("POS 60 GTO 1") == "ack"
    client.close()
    gripper = eventually(
        lambda: next((g for g in operator.state()["grippers"] if g["commandedByOther"]), None)
    )
    assert gripper["id"] == 9 and gripper["request"] is None and gripper["echo"] == 60
    kinds = [event["kind"] for event in operator.state()["events"] if event["gripper"] == 9]
    assert "other-command" in kinds


def test_the_history(module_gateway):
    page = module_gateway.page()
    eventually(lambda: len(page.get("/api/v1/history?gripper=9&seconds=1").json()["t"]) >= 15)
    answer = page.get("/api/v1/history?gripper=9").json()
    assert len(answer["t"]) == len(answer["position"]) == len(answer["request"]) > 15
    assert answer["t"] == sorted(answer["t"]) and answer["t"][-1] <= answer["clock"]
    assert page.get("/api/v1/history?gripper=8").status == 404
    for query in ("", "?gripper=x", "?gripper=9&seconds=601", "?gripper=9&seconds=0"):
        assert page.get("/api/v1/history" + query).status == 400


def test_a_stream_is_quick_and_lives(module_gateway, simulated):
    stream = module_gateway.page().stream()
    stream.wait_for("picture")
    begin = len(stream.messages)
    eventually(lambda: len(stream.messages) >= begin + 2, 6, "two signs of life")
    times = [at for at, _, _ in stream.messages[begin:]]
    assert all(later - earlier < 1.6 for earlier, later in zip(times, times[1:]))
    stream.validate()
    stream.close()


def test_control_can_be_taken_over_and_both_pages_see_it(module_gateway):
    first, second = module_gateway.operator(), module_gateway.page("operate")
    stream = first.stream()
    stream.wait_for("picture")
    answer = second.post("control")
    assert answer.status == 409 and answer.code == "held"
    lease = second.take_control(takeOver=True)
    stream.wait_for("event", lambda event: event["detail"] == "taken-over")
    stream.wait_for("change", lambda change: change["control"]["number"] == lease["number"])
    assert first.post("control", {"key": first.key}).code == "no-control"
    deleted = second.request("DELETE", "/api/v1/control", {"key": second.key})
    assert deleted.status == 204
    stream.wait_for("change", lambda change: change["control"] is None)
    stream.close()


def test_the_end_of_a_session_ends_its_stream(module_gateway):
    page = module_gateway.page("view")
    stream = page.stream()
    assert stream.wait_for("picture")["you"]["paired"]
    assert page.request("DELETE", "/api/v1/session").status == 204
    stream.wait_for_end()
    assert page.get("/api/v1/state").status == 401


def test_healthz(module_gateway):
    answer = module_gateway.page().get("/healthz")
    assert answer.status == 200 and answer.body == b"ok: line connected (RUNNING)\n"


def test_the_page_is_small_and_protected(module_gateway):
    page = module_gateway.page()
    answer = page.get("/")
    assert answer.status == 200 and answer.headers["Content-Type"].startswith("text/html")
    assert len(answer.body) < LIMIT
    assert page.get("/", If_None_Match=answer.headers["ETag"]).status == 304
    for path in ("/", "/healthz", "/api/v1/state", "/nothing"):
        headers = page.get(path).headers if path != "/nothing" else page.request("GET", path).headers
        assert headers["Content-Security-Policy"].startswith(CSP)
        assert "unsafe" not in headers["Content-Security-Policy"]
        assert headers["X-Content-Type-Options"] == "nosniff"
        assert headers["X-Frame-Options"] == "DENY"
        assert not [name for name in headers if name.lower().startswith("access-control-")]
        assert "Set-Cookie" not in headers
    assert page.get("/healthz").headers["Cache-Control"] == "no-store"
    assert page.get("/../etc/passwd").status == 404


def test_the_page_has_texts_without_its_script(module_gateway):
    page = module_gateway.page()
    texts = page.get("/texts.en.js").body.decode()
    shown = re.findall(r'<(?:title|noscript) data-text="(\w+)">(.+)</', page.get("/").body.decode())
    assert [key for key, _ in shown] == ["title", "noscript"]
    assert all(f'"{key}": "{text}"' in texts for key, text in shown)


def test_the_document_names_every_schema_it_uses():
    text = json.dumps(API)
    for name in API["components"]["schemas"]:
        assert f'#/components/schemas/{name}"' in text, f"{name} is not in use"
    with pytest.raises(Exception, match="is not"):
        validate("Line", {"state": "connected"} | dict.fromkeys(("text",), 1))


def test_the_default_addresses_are_loopback(module_gateway):
    listening = []
    for table in ("/proc/net/tcp", "/proc/net/tcp6"):
        with open(table, encoding="ascii") as connections:
            for line in connections.readlines()[1:]:
                address, port = line.split()[1].split(":")
                if int(port, 16) == PORT and line.split()[3] == "0A":
                    listening.append(address)
    assert "0100007F" in listening and len(listening) <= 2
    assert set(listening) <= {"0100007F", "00000000000000000000000001000000"}


def test_a_new_id(operator):
    """The last test of the file: the gripper keeps its new id."""
    outcome = operator.do("grippers/2/rename", 30, serial="SIM-1002", newId=3)
    assert outcome["code"] == "ok"
    eventually(lambda: [each["id"] for each in operator.state()["grippers"]] == [3, 9])
