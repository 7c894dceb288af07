"""The page against a scripted gateway: what it shows, sends and refuses to send."""

import json
import pathlib
import time

import pytest
from selenium.webdriver.common.keys import Keys

from fakegateway import AT, FakeGateway, gripper, job
from gatewayrig import validate
from harness.effort import effort

AXE = pathlib.Path(__file__).resolve().parent / "vendor" / "axe-core" / "axe.min.js"
FLOODS = True
SIZES = effort([(360, 640)], [(360, 640), (1024, 768), (1920, 1080)])


@pytest.fixture
def operated(view, gateway):
    """A gateway whose page is paired and has control."""
    view.pair()
    view.take_control()
    return gateway


def findings(view):
    """What axe-core finds, including the contrast of 7:1 and the size of touch targets."""
    # The policy of the page does not apply to scripts of the driver.
    if not view.script("return Boolean(window.axe)"):
        view.script(AXE.read_text())
    result = view.driver.execute_async_script(
        """
        const done = arguments[arguments.length - 1];
        axe.run({ rules: { "color-contrast-enhanced": { enabled: true }, "target-size": { enabled: true } } })
            .then(({ violations }) => done(violations.map(({ id, nodes }) =>
                [id, ...nodes.map(({ target, failureSummary }) => `${target} ${failureSummary}`)])));
        """
    )
    return json.dumps(result, indent=1) if result else ""


def overflow(view):
    """The elements that stick out of the window."""
    return view.script(
        """
        return [...document.querySelectorAll("body *")]
            .filter((one) => one.checkVisibility() && one.getBoundingClientRect().right > innerWidth + 0.5)
            .map((one) => one.outerHTML.slice(0, 80));
        """
    )


def small_targets(view):
    return view.script(
        """
        return [...document.querySelectorAll("button, input, select")]
            .filter((one) => one.checkVisibility())
            .map((one) => [one.id || one.outerHTML.slice(0, 60), one.getBoundingClientRect()])
            .filter(([, { width, height }]) => width < 44 || height < 44)
            .map(([name, { width, height }]) => `${name} ${width}x${height}`);
        """
    )


def make_troubled(gateway):
    """Everything at once that a card and the maintenance can show."""
    gateway.change(9, moving=True, position=60, object="moving", commandedByOther=True, otherCommandAgeSeconds=2.0,
                   fault={"code": 9, "text": "Communication lost"}, request=None)
    gateway.send_job(job(7, state="failed", stage="searching", elapsedSeconds=64.0, outcome={
        "code": "missing", "text": "The gripper does not answer."}))
    gateway.send("event", {"number": 1, "at": AT, "clock": 1.0, "ageSeconds": 1.0, "kind": "fault", "gripper": 9,
                           "code": 9, "detail": "Communication lost", "text": "fault"})


@pytest.mark.short
def test_the_scripted_gateway_keeps_to_the_interface():
    with FakeGateway() as gateway:
        gateway.picture["jobs"].append(job(1, stage="writing"))
        validate("Picture", gateway.whole())


@pytest.mark.short
@pytest.mark.parametrize("theme", effort(["light"], ["light", "dark"]))
def test_accessible_in_every_state(view, operated, theme):
    view.theme(theme)
    make_troubled(operated)
    view.wait(lambda: "Communication lost" in view.text("cards"))
    for size in SIZES:
        view.resize(*size)
        assert findings(view) == ""
        assert overflow(view) == []
        assert small_targets(view) == []
    operated.change(9, present=False, stale=True, missingSeconds=3.0,
                    line={"state": "timed-out", "text": "ERR_TIMEOUT", "stale": True, "valueAgeSeconds": 9.0})
    view.wait_for_banner("stopped answering")
    assert findings(view) == ""
    operated.change(9, present=True, stale=False, missingSeconds=None,
                    line={"state": "connected", "stale": False, "valueAgeSeconds": 0.1})
    view.wait_until_enabled("rename")
    view.click("#rename")
    assert findings(view) == ""
    view.press(Keys.ESCAPE)


def test_accessible_without_pairing(view, gateway):
    for theme in ("light", "dark"):
        view.theme(theme)
        view.resize(*SIZES[0])
        assert findings(view) == ""
        assert overflow(view) == []


def test_every_command_by_keyboard(view, gateway):
    view.use("#control-button")
    view.wait(lambda: view.script("return document.activeElement.matches('#dialog input')"))
    view.press("GOOD", Keys.ENTER)
    view.wait(lambda: "Take control" in view.text("control-button"))
    view.use("#control-button")
    view.wait_until_enabled("go")
    lease = {"lease": "k"}
    for steps, expected in [
        ([("#activate",), ("#dialog-accept",)], ("activate", {**lease, "again": True})),
        ([("#position", Keys.HOME, Keys.ARROW_RIGHT), ("#speed", Keys.END), ("#force", Keys.ARROW_LEFT), ("#go", Keys.SPACE)],
         ("move", {**lease, "position": 1, "speed": 255, "force": 39})),
        ([("#open",)], ("move", {**lease, "position": 0, "speed": 255, "force": 39})),
        ([("#close",)], ("move", {**lease, "position": 255, "speed": 255, "force": 39})),
        ([("[data-stops][data-key='9']",)], ("stop", {})),
        ([("#release",), ("#dialog-accept",)], ("release", lease)),
        ([("[data-led='red']",)], ("led", {**lease, "red": True, "green": False, "blue": False})),
        ([("[data-led='auto']",)], ("led", {**lease, "auto": True})),
        ([("[data-mode='1']",)], ("mode", {**lease, "mode": 1})),
        ([("#rename",), ("#dialog input", "sim-1009"), ("#dialog select", Keys.END), ("#dialog-accept",)],
         ("rename", {**lease, "serial": "SIM-1009", "newId": 4})),
    ]:
        count = len(gateway.commands())
        for selector, *keys in steps:
            view.wait(lambda: view.one(selector).is_enabled())
            view.use(selector, *keys)
        view.wait(lambda: len(gateway.commands()) > count)
        action, body = expected
        assert gateway.commands()[count:] == [("POST", f"grippers/9/{action}", body)]
        finish(gateway)
    view.use("#scan")
    view.wait(lambda: gateway.commands()[-1] == ("POST", "scan", lease))
    finish(gateway)
    view.wait_until_enabled("upgrade")
    view.use("#upgrade")
    view.press("SIM-1009", Keys.TAB, "TA3-1.6.14", Keys.ENTER)
    view.wait(lambda: gateway.commands()[-1] == (
        "POST", "grippers/9/upgrade", {**lease, "serial": "SIM-1009", "expected": "TA3-1.6.14"}))
    view.use("#theme")
    view.use("#trend-pause", Keys.SPACE)
    view.use("#unpair")
    view.wait(lambda: "Viewing only" in view.text("control-holder"))


def finish(gateway, **outcome):
    """Ends the newest job."""
    newest = gateway.picture["jobs"][-1]
    gateway.send_job({**newest, "state": "done" if outcome.get("code", "ok") == "ok" else "failed",
                      "outcome": {"code": "ok", "text": "", **outcome}})


def test_dials_and_their_enter_key_move_nothing(view, operated):
    view.set_dial("position", 77)
    view.one("#position-number").send_keys(Keys.ENTER)
    view.use("#speed", Keys.ARROW_RIGHT, Keys.ARROW_RIGHT)
    view.wait(lambda: view.text("go") == "Go to 77")
    assert operated.commands() == []


@pytest.mark.parametrize("value", ["", "256", "-1", "1.5"])
def test_wrong_numbers_are_not_sent(view, operated, value):
    view.set_dial("position", value)
    view.wait(lambda: "0 to 255" in view.text("go"))
    view.click("#go")
    assert operated.commands() == []


@pytest.mark.short
def test_double_taps_send_once(view, operated):
    operated.hold.clear()
    taps = "for (let tap = 0; tap < 5; ++tap) document.getElementById(arguments[0]).click()"
    for element_id in ("go", "open"):
        view.script(taps, element_id)
        view.wait(lambda: view.one(f"#{element_id}").get_attribute("aria-busy") == "true")
        view.wait_for_message("sending position")
    operated.hold.set()
    view.wait_for_message("moves")
    view.wait(lambda: not view.all("[aria-busy='true']"))
    # The pause after a tap has not ended when the answer comes at once.
    view.script(taps, "close")
    view.script("document.getElementById('close').click()")
    view.wait(lambda: len(operated.commands()) >= 3)
    assert [body["position"] for _, _, body in operated.commands()] == [120, 0, 255]


def test_stop_repeats_while_an_answer_is_missing(view, operated):
    operated.hold.clear()
    for count in (1, 2):
        view.click("[data-stops][data-key='9']")
        view.wait(lambda: len(operated.commands()) == count)
    operated.hold.set()


def test_stop_of_a_vacuum_gripper_says_what_it_does(view, operated):
    assert "the part falls" in view.one("[data-stops][data-key='2']").text
    view.click("[data-stops][data-key='2']")
    view.wait(lambda: operated.commands() == [("POST", "grippers/2/stop", {})])


@pytest.mark.short
def test_stop_needs_no_lease_but_a_pairing(view, gateway):
    view.click("[data-stops][data-key='9']")
    assert "emergency stop" in view.text("dialog-text")
    view.one("#dialog input").send_keys("GOOD", Keys.ENTER)
    view.wait(lambda: "Take control" in view.text("control-button"))
    view.click("[data-stops][data-key='9']")
    view.wait(lambda: gateway.commands() == [("POST", "grippers/9/stop", {})])


def is_in_sight(view, selector):
    """Whether a touch on the middle of the control reaches it."""
    return view.script(
        """
        const control = document.querySelector(arguments[0]);
        const { left, top, width, height } = control.getBoundingClientRect();
        return document.elementFromPoint(left + width / 2, top + height / 2)?.closest("button") === control;
        """,
        selector,
    )


def test_stop_stays_in_sight(view, operated):
    for size in SIZES:
        view.resize(*size)
        for place in (0, 400, 100000):
            view.script("scrollTo(0, arguments[0])", place)
            assert is_in_sight(view, "[data-stops][data-key='9']")


@pytest.mark.short
def test_stop_works_beside_a_dialog(view, operated):
    for size in SIZES:
        view.resize(*size)
        view.click("#upgrade")
        assert is_in_sight(view, "[data-stops][data-key='9']")
        assert is_in_sight(view, "#dialog-accept")
        assert overflow(view) == []
        assert findings(view) == ""
        view.press(Keys.ESCAPE)
        view.wait(lambda: not view.script("return document.getElementById('dialog').open"))
    view.click("#release")
    view.one("[data-stops][data-key='9']").click()
    view.wait(lambda: operated.commands() == [("POST", "grippers/9/stop", {})])
    view.one("[data-stops][data-key='2']").click()
    view.wait(lambda: operated.commands()[1:] == [("POST", "grippers/2/stop", {})])
    view.press(Keys.ESCAPE)
    view.wait(lambda: view.script("return document.getElementById('stop-bar').parentElement === document.body"))


def test_stop_keeps_the_focus_after_its_question(view, gateway):
    view.use("[data-stops][data-key='2']")
    view.wait(lambda: "emergency stop" in view.text("dialog-text"))
    view.press(Keys.ESCAPE)
    view.wait(lambda: view.script("return document.activeElement.matches(\"[data-stops][data-key='2']\")"))
    assert gateway.commands() == []


def test_failed_stop_names_the_emergency_stop(view, operated):
    view.expected.append("503")
    operated.refusal = (503, {"error": {"code": "unavailable", "text": "no daemon"}})
    view.click("[data-stops][data-key='9']")
    assert "was not stopped: The daemon does not answer. In danger" in view.wait_for_message("emergency stop")


@pytest.mark.parametrize(
    "code, status, words",
    [("busy", 409, "Another operation"), ("no-control", 409, "not have control"), ("role", 403, "role"),
     ("unknown-gripper", 404, "does not know this gripper"), ("later-code", 418, "A teapot.")],
)
def test_refusals_in_words(view, operated, code, status, words):
    view.expected.append(str(status))
    operated.refusal = (status, {"error": {"code": code, "text": "A teapot."}})
    view.click("#go")
    view.wait_for_message(words)


@pytest.mark.parametrize(
    "outcome, words",
    [({"code": "ok", "object": "reached", "position": 120}, "Gripper 9 reached position 120."),
     ({"code": "ok", "object": "met", "position": 80}, "met an object at position 80."),
     ({"code": "fault", "fault": 5}, "reports fault 5"), ({"code": "timed-out"}, "may still carry it out"),
     ({"code": "later"}, "failed (later)")],
)
def test_outcomes_in_words(view, operated, outcome, words):
    view.click("#go")
    view.wait_for_message("moves")
    finish(operated, **outcome)
    view.wait_for_message(words)


def send_event(gateway, number, kind, slave_id=None, **values):
    gateway.send("event", {"number": number, "at": AT, "clock": gateway.clock, "ageSeconds": 0.0, "kind": kind,
                           "gripper": slave_id, "code": None, "detail": None, "text": "", **values})


@pytest.mark.short
def test_an_event_clears_the_good_message_that_it_contradicts(view, operated):
    numbers = iter(range(1, 100))
    shown = lambda number: view.wait(lambda: view.all(f"#events [data-key='{number}']"))
    for kind, slave_id, detail in (("fault", 9, None), ("other-command", 9, None), ("missing", 9, None), ("link", None, "gone")):
        view.click("[data-stops][data-key='9']")
        view.wait_for_message("stops")
        finish(operated)
        view.wait_for_message("has stopped")
        for harmless in (("other-command", 2, None), ("arrived", 9, None), ("link", None, "connected")):
            last = next(numbers)
            send_event(operated, last, *harmless[:2], detail=harmless[2])
        shown(last)
        assert "has stopped" in view.text("message")
        last = next(numbers)
        send_event(operated, last, kind, slave_id, code=5, detail=detail)
        shown(last)
        assert view.text("message") == "", kind


@pytest.mark.short
def test_no_event_clears_a_problem_or_a_message_about_no_gripper(view, operated):
    assert "Paired" in view.text("message")
    send_event(operated, 1, "link", detail="gone")
    view.wait(lambda: view.all("#events [data-key='1']"))
    assert "Paired" in view.text("message")
    view.click("#go")
    view.wait_for_message("moves")
    finish(operated, code="timed-out")
    view.wait_for_message("may still carry it out")
    send_event(operated, 2, "missing", 9)
    view.wait(lambda: view.all("#events [data-key='2']"))
    assert "may still carry it out" in view.text("message")


def test_upgrade_shows_stages_time_and_what_to_do(view, operated):
    operated.send_job(job(5, stage="writing", elapsedSeconds=40.0))
    view.wait(lambda: view.all("#job-stages li[data-state='now']"))
    assert "Writing" in view.one("#job-stages li[data-state='now']").text
    first = view.text("job-elapsed")
    view.wait(lambda: view.text("job-elapsed") != first)
    assert not view.one("#go").is_enabled()
    assert view.one("[data-stops][data-key='9']").is_enabled()
    operated.send_job(job(5, stage="searching", state="failed", elapsedSeconds=64.0, outcome={
        "code": "missing", "text": "It does not answer."}))
    view.wait(lambda: "Switch the gripper off and on" in view.text("job-outcome"))
    assert "It does not answer." in view.text("job-outcome")


def test_wrong_serial_number_is_not_sent(view, operated):
    view.click("#upgrade")
    view.one("#dialog input").send_keys("SIM-1002", Keys.ENTER)
    view.wait(lambda: "not the serial number" in view.text("dialog-error"))
    assert operated.commands() == []
    view.press(Keys.ESCAPE)


def test_wrong_code_stays_in_the_dialog(view, gateway):
    view.expected.append("401")
    view.click("#control-button")
    view.one("#dialog input").send_keys("BAD", Keys.ENTER)
    view.wait(lambda: "wrong, used or expired" in view.text("dialog-error"))
    view.press(Keys.ESCAPE)
    assert "Viewing only" in view.text("control-holder")


def test_code_in_the_address_pairs_and_disappears(view, gateway):
    view.script("location.hash = 'code=GOOD'")
    view.wait(lambda: "Take control" in view.text("control-button"))
    assert view.script("return location.hash") == ""


def test_reload_keeps_the_pairing_but_not_the_lease(view, operated):
    view.driver.refresh()
    view.wait(lambda: view.text("control-button") in ("Take control", "Take over"))
    assert not view.one("#go").is_enabled()


@pytest.mark.short
def test_take_over_asks_and_both_sides_see_it(view, operated):
    holder = {"number": 90, "role": "operate", "peer": "10.1.2.3", "since": AT, "sinceSeconds": 70.0, "expiresInSeconds": 5.0}
    operated.picture["control"] = holder
    operated.change()
    view.expected.append("409")
    view.wait_for_banner("took over control: operate at 10.1.2.3")
    assert not view.one("#go").is_enabled()
    view.click("#control-button")
    view.wait(lambda: "has had control for 1 min" in view.text("dialog-text"))
    view.click("#dialog-accept")
    view.wait(lambda: ("POST", "control", {"takeOver": True}) in operated.requests)


def test_lost_lease_is_no_take_over(view, operated):
    """The picture still shows the own lease when a renewal fails."""
    view.expected.append("409")
    operated.forget_lease()
    view.wait_for_banner("You no longer have control.")
    assert not view.one("#go").is_enabled()


def test_lease_is_renewed_only_in_sight(view, operated):
    renewals = lambda: [body for _, route, body in operated.requests if route == "control" and "key" in body]
    view.wait(lambda: len(renewals()) == 1, 4)
    page = view.driver.current_window_handle
    view.driver.switch_to.new_window("tab")
    hidden = len(renewals())
    time.sleep(2.5)
    assert len(renewals()) == hidden
    assert operated.streams == []
    view.driver.close()
    view.driver.switch_to.window(page)
    view.wait(lambda: len(renewals()) > hidden)
    view.wait(lambda: operated.streams)


def test_silence_shows_within_four_seconds(view, gateway):
    gateway.mute()
    start = time.monotonic()
    view.wait_for_banner("gateway does not answer")
    assert time.monotonic() - start < 4.5
    assert view.script("return document.querySelector('.card').dataset.old") == "true"


@pytest.mark.short
def test_the_lock_names_what_to_do_first(view, gateway):
    view.wait(lambda: "Pair this device first" in view.text("command-lock"))
    view.pair()
    view.wait(lambda: view.text("command-lock").startswith("Take control"))
    gateway.picture["control"] = HOLDER
    gateway.change(line={"state": "connected"})
    view.wait(lambda: view.text("command-lock").startswith("Another page has control. Take over"))
    # Control does not help while no command reaches the gripper.
    for state in ("gone", "timed-out", "no-daemon", "scanning"):
        gateway.change(line={"state": state})
        view.wait(lambda: view.text("command-lock") == "No command reaches the gripper now.")
        gateway.change(line={"state": "connected"})
        view.wait(lambda: view.text("command-lock").startswith("Another page"))
    gateway.change(line={"state": "scanning"})
    gateway.send_job(job(7, "scan", None))
    view.wait(lambda: "An operation on the line" in view.text("command-lock"))
    for control in ("go", "scan", "rename"):
        assert not view.one(f"#{control}").is_enabled()


@pytest.mark.short
def test_control_is_unknown_without_the_gateway(view, operated):
    operated.mute()
    view.wait_for_banner("gateway does not answer")
    view.wait(lambda: view.text("control-holder") == "Control unknown")
    assert not view.one("#control-button").is_displayed()
    assert view.one("[data-stops][data-key='9']").is_enabled()
    # The own former lease is the last holder that the page knows.
    operated.forget_lease()
    view.expected.append("409")
    view.wait_for_banner("You no longer have control.")
    assert view.text("control-holder") == "Control unknown"
    operated.unmute()
    view.wait(lambda: view.one("#control-button").is_displayed() and view.text("control-holder") != "Control unknown")


@pytest.mark.short
def test_old_values_are_marked_and_commands_locked(view, operated):
    operated.change(9, stale=True, line={"state": "gone", "text": "ERR_SERIALPORT", "stale": True, "valueAgeSeconds": 65.0})
    view.wait_for_banner("serial port is gone")
    assert "1 min 5 s" in view.text("line-age")
    assert not view.one("#go").is_enabled()
    assert view.one("#scan").is_enabled()
    assert view.one("[data-stops][data-key='9']").is_enabled()


def test_ages_ignore_the_wall_clock(view, gateway):
    view.script("const real = Date.now; Date.now = () => real() + 86400000")
    gateway.change(9, position=33)
    view.wait(lambda: view.card(9, "position") == "33")
    assert "under 1 s" in view.text("line-age")


def test_restart_of_the_gateway_ends_jobs_and_pairing(view, operated):
    view.click("#go")
    view.wait_for_message("moves")
    operated.picture["gateway"]["instance"] = "b"
    operated.picture.update(jobs=[], control=None)
    operated.role = None
    operated.drop_streams()
    view.wait_for_message("has restarted and does not know its result")
    view.wait(lambda: "Viewing only" in view.text("control-holder"))


def test_grippers_come_and_go(view, gateway):
    gateway.picture["grippers"] = [gripper(3)]
    gateway.drop_streams()
    view.wait(lambda: view.text("command-title") == "Command gripper 3")
    assert len(view.all(".card")) == len(view.all("[data-stops]")) == 1
    gateway.picture["grippers"] = []
    gateway.drop_streams()
    view.wait(lambda: "found no gripper" in view.text("no-grippers"))


@pytest.mark.short
def test_texts_of_others_are_not_markup(view, gateway):
    hostile = "<img src=x onerror=alert(1)>"
    gateway.change(9, serial=hostile, firmware=hostile, fault={"code": 1, "text": hostile}, family=hostile)
    view.wait(lambda: view.card(9, "serial") == hostile)
    assert view.all("main img") == []


HOLDER = {"number": 90, "role": "maintain", "peer": "192.168.100.200", "since": AT, "sinceSeconds": 70.0,
          "expiresInSeconds": 5.0}
# What appears, and a part of the page's text that shows it.
MARKERS = {
    "another program": ({"commandedByOther": True, "otherCommandAgeSeconds": 9.9}, "Another program: command"),
    "missing": ({"present": False, "stale": True, "missingSeconds": 3599.0}, "Missing for 59 min 59 s"),
    "fault": ({"fault": {"code": 255, "text": "Communication lost"}}, "255 (Communication lost)"),
    "stale": ({"stale": True, "line": {"stale": True, "valueAgeSeconds": 9.0}}, "Values are old"),
    "timed out": ({"stale": True, "line": {"state": "timed-out", "text": "ERR_TIMEOUT", "stale": True}}, "No command reaches"),
}

FAULTS = {2: {"code": 255, "text": "The suction cup has a leak: look at its edge and at the part, which may be dirty"},
          9: {"code": 5, "text": None}}
FAULT_BANNERS = [f"Gripper 2: fault 255 ({FAULTS[2]['text']})", "Gripper 9: fault 5"]


def places(view):
    """The places of all controls on the page."""
    return view.script(
        """
        return [...document.querySelectorAll("button, input")].filter((one) => one.checkVisibility()).map((one) => {
            const { right, top } = one.getBoundingClientRect();
            return `${one.id || one.getAttribute("aria-label") || one.textContent}: ${right}, ${top + scrollY}`;
        });
        """
    )


@pytest.mark.short
@pytest.mark.parametrize("size", [(360, 640), (1024, 768), (1920, 1080)], ids=str)
def test_markers_move_no_control(view, operated, size):
    view.resize(*size)
    usual = operated.whole()
    before = places(view)
    for values, words in MARKERS.values():
        operated.change(9, **values)
        view.wait(lambda: words in view.text("main") + view.text("banners"))
        assert places(view) == before, words
        operated.change(9, **{**usual["grippers"][1], "line": usual["line"]})
        view.wait(lambda: words not in view.text("main") + view.text("banners"))
        assert places(view) == before, words
    operated.send_job(job(70, "deactivate"))
    view.wait(lambda: "Another page" in view.text("cards"))
    assert places(view) == before
    for slave_id, fault in FAULTS.items():
        operated.change(slave_id, fault=fault)
    view.wait(lambda: view.banners() == FAULT_BANNERS)
    assert places(view) == before
    view.expected.append("409")
    operated.picture["control"] = HOLDER
    operated.change()
    view.wait_for_banner("took over control")
    assert places(view) == before


@pytest.mark.short
@pytest.mark.parametrize("size", [(360, 640), (1024, 768)], ids=str)
def test_faults_are_in_sight(view, operated, size):
    """Also beside the other banners. The engineer can scroll to everything that the banners cover."""
    view.resize(*size)
    for slave_id, fault in FAULTS.items():
        operated.change(slave_id, fault=fault)
    view.wait(lambda: view.banners() == FAULT_BANNERS)
    view.expected.append("409")
    operated.picture["control"] = HOLDER
    operated.change(line={"state": "timed-out", "text": "ERR_TIMEOUT"})
    view.wait(lambda: len(view.banners()) == 4)
    for banner in view.all("#banners p"):
        assert view.script(
            "const { top, bottom } = arguments[0].getBoundingClientRect(); return top >= 0 && bottom <= innerHeight", banner)
    assert findings(view) == ""
    assert overflow(view) == []
    view.script("scrollTo(0, document.body.scrollHeight)")
    view.wait(lambda: view.script(
        "return document.querySelector('.foot').lastElementChild.getBoundingClientRect().bottom <= "
        "document.getElementById('banners').getBoundingClientRect().top"))
    operated.change(9, present=False, stale=True, missingSeconds=1.0, line={"state": "connected"})
    view.wait(lambda: view.banners()[0] == FAULT_BANNERS[0] and "Gripper 9" not in "".join(view.banners()))


def test_marks_of_the_bar_cover_no_text(view, operated):
    # The triangles end at the upper and the lower edge of the bar.
    gaps_of_cards = """
        return [...document.querySelectorAll(".card")].map((card) => {
            const bar = card.querySelector(".bar").getBoundingClientRect();
            return [bar.top - card.querySelector(".reading").getBoundingClientRect().bottom,
                card.querySelector(".ends").getBoundingClientRect().top - bar.bottom];
        });
    """
    for size in SIZES:
        view.resize(*size)
        gaps = view.script(gaps_of_cards)
        assert len(gaps) == 2 and all(gap >= 0 for card in gaps for gap in card), gaps


def test_commands_of_another_page_are_marked(view, operated):
    def notes():
        return view.script("return [...document.querySelectorAll('.foreign:not(:empty)')].map((one) => one.textContent)")

    view.click("#go")
    view.wait(lambda: operated.commands())
    own = operated.picture["jobs"][-1]["id"]
    operated.send_job(job(own, "move"))
    operated.send_job(job(70, "move", role="operate"))
    view.wait(lambda: notes() == ["Another page: Movement (operate)"])
    operated.send_job(job(70, "move", state="done", ageSeconds=9.0, elapsedSeconds=1.0, outcome={"code": "ok", "text": ""}))
    view.wait(lambda: notes() == [], 4)
    # A scan concerns all grippers.
    operated.send_job(job(71, "scan", None))
    view.wait(lambda: len(notes()) == 2)


@pytest.mark.short
@pytest.mark.parametrize("words, shown", [(None, "12"), ("Communication lost", "12 (Communication lost)")])
def test_fault_in_words(view, gateway, words, shown):
    fault = {"code": 12, "text": words}
    gateway.change(9, fault=fault)
    view.wait(lambda: f"Fault{shown}" == view.one(".card[data-key='9'] [data-box='fault']").get_property("textContent"))
    send_event(gateway, 1, "fault", 9, code=12, detail=words)
    view.wait(lambda: f"Gripper 9: fault {shown}" == view.script("return document.querySelector('#events span')?.textContent"))


def test_trend_pauses_zooms_and_saves(view, gateway):
    now = gateway.clock
    times = [now - 600 + 0.5 * count for count in range(1200)]
    gateway.history = {"gripper": 9, "clock": now, "at": AT, "seconds": 600, "t": times,
                       "position": [count % 256 for count in range(1200)], "request": [5] * 1200, "current": [9] * 1200}
    view.driver.refresh()
    view.wait(lambda: view.all(".card"))
    view.expected.append("Canvas2D")
    drawn = lambda: view.script(
        "const c = document.querySelector('#chart canvas'); const d = c.getContext('2d').getImageData(0, 0, c.width, c.height).data;"
        "let n = 0; for (let i = 3; i < d.length; i += 4) n += d[i] > 0; return n")
    view.wait(lambda: drawn() > 5000)
    view.click("[data-span='20']")
    view.click("#trend-pause")
    view.click("#trend-back")
    assert view.one("#trend-pause").get_attribute("aria-pressed") == "true"
    before = drawn()
    time.sleep(0.4)
    assert drawn() == before
    view.click("#trend-pause")
    assert view.one("#trend-pause").get_attribute("aria-pressed") == "false"
    view.script("globalThis.saved = []; const make = URL.createObjectURL;"
                "URL.createObjectURL = (blob) => { blob.text().then((text) => saved.push(text)); return make.call(URL, blob); }")
    view.click("#trend-csv")
    view.wait_for_message("lines")
    lines = view.wait(lambda: view.script("return saved[0]")).splitlines()
    assert lines[0] == "time,seconds,gripper,position,requested,current,object,fault,link"
    assert len(lines) == 2401


def test_twelve_tabs(view, operated):
    page = view.driver.current_window_handle
    for _ in range(11):
        view.driver.switch_to.new_window("tab")
        view.driver.get(operated.url)
        view.wait(lambda: view.all(".card"))
    assert len(operated.streams) <= 2
    for handle in list(view.driver.window_handles):
        view.driver.switch_to.window(handle)
        operated.change(9, position=17)
        view.wait(lambda: view.card(9, "position") == "17")
        operated.change(9, position=18)
    for handle in [one for one in view.driver.window_handles if one != page]:
        view.driver.switch_to.window(handle)
        view.driver.close()
    view.driver.switch_to.window(page)
    view.click("[data-stops][data-key='9']")
    view.wait(lambda: operated.commands() == [("POST", "grippers/9/stop", {})])
