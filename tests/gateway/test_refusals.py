"""No request that lacks something writes to a gripper."""

import http.client

import pytest
from gatewayrig import COMMANDS, HOST, ORIGIN, PORT, WITHOUT_LEASE, body, no_write, writes
from harness.waiting import eventually

@pytest.fixture
def operator(module_gateway):
    return module_gateway.operator("maintain")


@pytest.fixture
def quiet(module_gateway, simulated):
    with no_write(module_gateway, simulated):
        yield


def test_the_same_requests_are_carried_out_when_nothing_is_wrong(operator, simulated):
    """A guard of the other tests: their requests lack only what they say."""
    for route in ("grippers/9/led", "grippers/9/mode", WITHOUT_LEASE):
        answer = operator.post(route, body(operator, route))
        assert answer.status == 202, (route, answer.body)
        assert operator.outcome(answer.json()["job"]["id"])["code"] == "ok"
    mark = simulated.mark()
    assert operator.do("grippers/9/led", auto=True)["code"] == "ok"
    eventually(lambda: writes(simulated, mark))
    # After a write without an answer, the daemon writes again.
    simulated.wait_until_polled(9, 2)


@pytest.mark.parametrize(
    "origin", [None, "null", "http://evil.example", f"http://evil.example:{PORT}",
               f"https://{HOST}", "http://localhost", f"{ORIGIN}.evil.example"]
)
def test_a_foreign_origin(quiet, operator, origin):
    for route in COMMANDS:
        answer = operator.post(route, body(operator, route), Origin=origin)
        assert answer.status == 403 and answer.code == "forbidden-origin"


@pytest.mark.parametrize("host", ["evil.example", f"evil.example:{PORT}", "localhost", ""])
def test_a_foreign_host(quiet, operator, host):
    """Also with the origin of the same foreign name, as DNS rebinding makes them."""
    for route in COMMANDS:
        for origin in (ORIGIN, f"http://{host}"):
            answer = operator.post(route, body(operator, route), Host=host, Origin=origin)
            assert answer.status == 421


@pytest.mark.parametrize("path", ["/", "/healthz", "/api/v1/state", "/api/v1/stream",
                                  "/api/v1/history?gripper=9"])
def test_a_foreign_host_reads_nothing(module_gateway, path):
    for host in (f"rebound.example:{PORT}", "rebound.example", "127.0.0.1"):
        answer = module_gateway.page().get(path, Host=host)
        assert answer.status == 421 and b"gripper" not in answer.body.lower().replace(b"gateway", b"")


@pytest.mark.parametrize("kind", [None, "text/plain", "application/x-www-form-urlencoded",
                                  "multipart/form-data; boundary=x", "text/json"])
def test_another_content_type(quiet, operator, kind):
    for route in COMMANDS:
        answer = operator.post(route, body(operator, route), Content_Type=kind)
        assert answer.status == 415


@pytest.mark.parametrize("token", [None, "Bearer ", "Bearer A", "Basic QTpC", "bearer"])
def test_no_token(quiet, operator, token):
    for route in COMMANDS:
        answer = operator.post(route, body(operator, route), Authorization=token)
        assert answer.status == 401 and answer.code == "unpaired"


def test_a_cookie_is_no_token(quiet, operator):
    cookie = f"token={operator.token}"
    for route in COMMANDS:
        answer = operator.post(route, body(operator, route), Authorization=None, Cookie=cookie)
        assert answer.status == 401


def test_a_viewer(quiet, module_gateway, operator):
    viewer = module_gateway.page("view")
    for route in COMMANDS:
        answer = viewer.post(route, body(operator, route))
        assert answer.status == 403 and answer.code == "role"


def test_an_operator_does_no_maintenance(quiet, module_gateway):
    page = module_gateway.operator("operate")
    for route in ("grippers/9/rename", "grippers/9/upgrade"):
        answer = page.post(route, body(page, route))
        assert answer.status == 403 and answer.code == "role"


@pytest.mark.parametrize("lease", ["missing", "wrong", "former", "of another session"])
def test_no_lease(quiet, module_gateway, operator, lease):
    page = operator
    if lease == "former":
        module_gateway.operator()
    elif lease == "of another session":
        page = module_gateway.page("maintain")
    for route in COMMANDS:
        if route == WITHOUT_LEASE:
            continue
        request = body(operator, route)
        if lease == "missing":
            del request["lease"]
        elif lease == "wrong":
            request["lease"] = "A" * 26
        answer = page.post(route, request)
        assert answer.status == (400 if lease == "missing" else 409)
        assert answer.code == ("bad-request" if lease == "missing" else "no-control")


def test_no_json(quiet, operator):
    for route in COMMANDS:
        for text in ("", "{", "[]", "lease=" + operator.key, b"\xff\xfe"):
            assert operator.post(route, text).status == 400


def test_a_get_changes_nothing(quiet, operator):
    for route in COMMANDS:
        for method in ("GET", "PUT", "PATCH", "OPTIONS", "HEAD", "DELETE"):
            connection = operator.gateway.connect()
            connection.request(method, "/api/v1/" + route, headers=operator.headers("POST"))
            response = connection.getresponse()
            assert response.status in (404, 405)
            assert not response.headers["Access-Control-Allow-Origin"]
            connection.close()


def test_there_is_no_websocket(quiet, operator):
    wanted = {"Connection": "Upgrade", "Upgrade": "websocket", "Sec-WebSocket-Version": "13",
              "Sec-WebSocket-Key": "AAAAAAAAAAAAAAAAAAAAAA=="}
    for path in ("/", "/api/v1/stream", "/api/v1/grippers/9/stop"):
        connection = operator.gateway.connect()
        connection.request("GET", path, headers={**operator.headers("GET"), **wanted})
        response = connection.getresponse()
        assert response.status in (200, 405) and not response.headers["Upgrade"]
        connection.close()


def test_a_used_code(quiet, module_gateway):
    code = module_gateway.pair_code("operate")
    page = module_gateway.page()
    assert page.post("session", {"code": code}).status == 201
    answer = page.post("session", {"code": code})
    assert answer.status == 401 and answer.code == "wrong-code"


def test_wrong_codes_end_the_right_one(quiet, module_gateway):
    code = module_gateway.pair_code("operate")
    page = module_gateway.page()
    for _ in range(5):
        assert page.post("session", {"code": "AAAA-AAAA"}).status == 401
    assert page.post("session", {"code": code}).status == 401


@pytest.mark.parametrize("wrong", [{"Origin": "null"}, {"Origin": None}, {"Host": "evil.example"},
                                   {"Content_Type": "text/plain"}])
def test_pairing_and_control_have_the_same_checks(quiet, module_gateway, operator, wrong):
    code = module_gateway.pair_code("operate")
    assert operator.post("session", {"code": code}, **wrong).status in (403, 415, 421)
    assert operator.post("control", {"takeOver": True}, **wrong).status in (403, 415, 421)
    # The code is not used up.
    assert module_gateway.page().post("session", {"code": code}).status == 201


def test_a_closed_session(quiet, operator):
    assert operator.request("DELETE", "/api/v1/session").status == 204
    assert operator.post(WITHOUT_LEASE).status == 401


def test_another_serial_number(quiet, operator):
    for route in ("grippers/9/rename", "grippers/9/upgrade"):
        request = {**body(operator, route), "serial": "SIM-1002"}
        assert operator.post(route, request).code == "serial"


def test_two_hosts_or_origins(quiet, operator):
    """Of two headers, a proxy might check the one and the gateway the other."""
    for doubled in ("Host", "Origin", "Authorization"):
        connection = http.client.HTTPConnection("127.0.0.1", PORT, timeout=5)
        connection.putrequest("POST", "/api/v1/grippers/9/stop", skip_host=True)
        for name, value in operator.headers("POST").items():
            connection.putheader(name, value)
        connection.putheader(doubled, operator.headers("POST")[doubled])
        connection.putheader("Content-Length", "2")
        connection.endheaders(b"{}")
        assert connection.getresponse().status in (400, 401, 403, 421)
        connection.close()
