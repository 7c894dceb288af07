"""Web pages in a real browser that connect to the daemon's port.

Every page tries to move the gripper without a click. The daemon closes each of these connections at
its first line and carries out nothing.
"""

import contextlib
import itertools
import re
import socket

import pytest
from harness.browser import Browser, PageServer
from harness.client import PORT, Client
from harness.load import WORST_LIMIT, Bystander
from harness.netsplit import NEAR, OtherMachine
from harness.waiting import eventually

# The browser keeps a processor busy.
FLOODS = True
SHARES_DAEMON = True

PAGE_PORT = 8000
COMMAND = "SET POS 114 SPE 77 FOR 66 GTO 1"
# Each write of the operator has a different value.
CURRENTS = itertools.cycle(range(1, 256))
HTTP, TLS = "HTTP request", "TLS handshake"

# name: (the first line of the browser's connection, the script of the page)
ATTACKS = {
    "fetch": (HTTP, "post(http, line)"),
    "fetch with a long URL": (HTTP, "post(http + 'x'.repeat(20000), line)"),
    "fetch with a long body": (HTTP, "post(http, line.repeat(5000))"),
    "header of a GET": (HTTP, "getWithHeader(http, 'Accept-Language')"),
    "preflight": (HTTP, "fetch(http, {method: 'PUT', headers: {'X-A': command}, body: line})"),
    "XMLHttpRequest": (HTTP, "xhr(line)"),
    "beacon": (HTTP, "navigator.sendBeacon(http, line)"),
    "form text/plain": (HTTP, "submit('text/plain', line, '')"),
    "form multipart": (HTTP, "submit('multipart/form-data', 'name', line)"),
    "image": (HTTP, "load('img', http + command)"),
    "script": (HTTP, "load('script', http + command)"),
    "frame": (HTTP, "load('iframe', http + command)"),
    "WebSocket": (HTTP, "connect('ws:' + path + command)"),
    "TLS fetch": (TLS, "post('https:' + path, line)"),
    "TLS image": (TLS, "load('img', 'https:' + path + command)"),
    "TLS WebSocket": (TLS, "connect('wss:' + path + command)"),
}

PAGE = """<!DOCTYPE html><body><script>
const path = "//TARGET/", http = "http:" + path;
const command = "COMMAND", line = "\\r\\n" + command + "\\r\\n";

function post(url, body) {
  return fetch(url, {method: "POST", mode: "no-cors", body});
}

function getWithHeader(url, name) {
  return fetch(url, {mode: "no-cors", headers: {[name]: command}});
}

function xhr(body) {
  return new Promise(resolve => {
    const request = new XMLHttpRequest();
    request.onloadend = resolve;
    request.open("POST", http);
    request.send(body);
  });
}

function connect(url) {
  return new Promise(resolve => { new WebSocket(url).onclose = resolve; });
}

function load(tag, url) {
  return new Promise(resolve => {
    const element = document.createElement(tag);
    element.onload = element.onerror = resolve;
    element.src = url;
    document.body.append(element);
  });
}

function submit(enctype, name, value) {
  return new Promise(resolve => {
    const frame = document.createElement("iframe");
    frame.name = "answer";
    document.body.append(frame);
    frame.onload = resolve;
    const form = document.createElement("form");
    Object.assign(form, {action: http, method: "post", enctype, target: "answer"});
    const field = document.createElement("textarea");
    Object.assign(field, {name, value});
    form.append(field);
    document.body.append(form);
    form.submit();
  });
}

// The driver waits until the page is loaded, so the attack begins after that.
onload = () => setTimeout(() => {
  // If the daemon keeps the connection, the attack never ends.
  const patience = new Promise(resolve => setTimeout(resolve, 1500));
  Promise.race([ATTACK, patience]).catch(() => {}).then(() => { document.title = "over"; });
});
</script>"""


def page(attack, target):
    text = PAGE.replace("TARGET", f"{target}:{PORT}").replace("COMMAND", COMMAND)
    return text.replace("ATTACK", ATTACKS[attack][1])


@pytest.fixture(scope="module")
def operator(module_found):
    """An ordinary client that stays connected."""
    with Client() as client:
        yield client


@pytest.fixture(scope="module")
def other_machine():
    with OtherMachine() as machine:
        yield machine


@pytest.fixture(scope="module")
def browser(tmp_path_factory, other_machine):
    with Browser(tmp_path_factory.mktemp("browser")) as started:
        yield started


@pytest.fixture(scope="module")
def origins(tmp_path_factory, other_machine):
    """Returns {origin: a function that publishes a page and returns its URL}."""
    file = tmp_path_factory.mktemp("page") / "page.html"

    def of_file(text):
        file.write_text(text, encoding="utf-8")
        return file.as_uri()

    def of_server(server):
        def url(text):
            server.page = text
            return server.url

        return url

    with contextlib.ExitStack() as servers:
        near = servers.enter_context(PageServer(socket.create_server(("127.0.0.1", PAGE_PORT))))
        far = servers.enter_context(PageServer(other_machine.listen(PAGE_PORT)))
        yield {
            "file": of_file,
            "this machine": of_server(near),
            "private address": of_server(far),
        }


def refusals(daemon, mark):
    """Returns the first lines of the connections that the daemon has refused."""
    pattern = re.compile(r"Closed \S+ because it began with an? (.*?)\.")
    return {found[1] for found in map(pattern.match, daemon.messages(mark)) if found}


def carry_out(daemon, line, operator, browser, url):
    """Returns (writes that are not from `operator`, first lines of the refused connections)."""
    log, requests, current = daemon.mark(), line.mark(), next(CURRENTS)
    browser.show(url)
    browser.wait_for_title("over")
    with contextlib.suppress(AssertionError):
        eventually(lambda: refusals(daemon, log), 1.0)
    # The next write has all outputs, also those that a page may have changed.
    assert operator.set(f"MSC {current}") == "ack"
    own = [0, current << 8, 0]
    line.wait_for(lambda r: r.is_write(1000) and r.values[1] >> 8 == current, since=requests)
    writes = [r.values for r in line.since(requests, lambda r: r.is_write() and r.values != own)]
    if writes:
        operator.set("POS 0 SPE 0 FOR 0 GTO 0")
        eventually(lambda: line[9].get(1000, 3) == own)
    return writes, refusals(daemon, log)


@pytest.mark.parametrize("target", ["127.0.0.1", NEAR])
@pytest.mark.parametrize("origin", ["file", "this machine", "private address"])
def test_a_page_moves_nothing(found, line, operator, browser, origins, figure, origin, target):
    with Bystander(found) as bystander:
        for attack, (beginning, _) in ATTACKS.items():
            url = origins[origin](page(attack, target))
            outcome = carry_out(found, line, operator, browser, url)
            assert outcome == ([], {beginning}), attack
    figure(bystander.check(WORST_LIMIT))
