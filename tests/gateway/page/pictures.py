"""Takes the pictures of docs/pictures: pictures.py FOLDER."""

import pathlib
import sys
import tempfile
import time

TESTS = pathlib.Path(__file__).resolve().parents[2]
sys.path[:0] = [str(TESTS / "daemon"), str(TESTS / "gateway")]

from harness.browser import Browser  # noqa: E402
from pageview import PageView  # noqa: E402
from rig import URL, Rig  # noqa: E402

SIZES = {"phone": (360, 640), "tablet": (1024, 768), "desk": (1920, 1080)}
# The pictures show a release, whatever they are taken of.
WITHOUT_COMMIT = """
    const shown = document.getElementById("daemon");
    const cut = () => {
        const text = shown.textContent.replace(/[~+]git\\S+/, "");
        if (shown.textContent !== text)
            shown.textContent = text;
    };
    new MutationObserver(cut).observe(shown, { childList: true });
    cut();
"""
MOVES = ((120, 40, 30), (230, 80, 120), (40, 255, 60), (200, 120, 200), (90, 20, 30))


def be_ready(view):
    """On a busy machine, the line may have timed out, and the lease may have ended."""
    view.wait(lambda: view.banners() == [] and not view.all(".card[data-old='true']"), 60)
    if view.text("control-button") == "Take control":
        view.take_control()


def move(view, position, speed, force):
    be_ready(view)
    view.wait_until_enabled("go")
    for name, value in (("position", position), ("speed", speed), ("force", force)):
        view.set_dial(name, value)
    view.click("#go")
    view.wait(lambda: view.text("message").startswith("Gripper") and "moves" not in view.text("message"))
    time.sleep(2)


def choose(view, slave_id):
    view.click(f".card[data-key='{slave_id}'] .card-head button")
    view.wait_until_enabled("go")
    if view.text("activate") == "Activate":
        view.click("#activate")
        view.wait_for_message("is active")


def main():
    folder = pathlib.Path(sys.argv[1])
    folder.mkdir(parents=True, exist_ok=True)
    with tempfile.TemporaryDirectory() as scratch, Browser(pathlib.Path(scratch) / "profile") as browser:
        (pathlib.Path(scratch) / "daemon").mkdir()
        with Rig(pathlib.Path(scratch) / "daemon") as rig:
            view = PageView(browser.driver)
            browser.driver.execute_cdp_cmd("Emulation.setScrollbarsHidden", {"hidden": True})
            rig.gateway.wait_for(lambda state: len(state["grippers"]) == 2, 30)
            view.show(URL)
            view.script(WITHOUT_COMMIT)
            view.pair(rig.gateway.pair_code("maintain"))
            view.take_control()
            choose(view, 2)
            move(view, 180, 200, 100)
            choose(view, 9)
            rig.line.command("object 9 190")
            for one in MOVES:
                move(view, *one)
            for name, size in SIZES.items():
                for theme in ("light", "dark"):
                    view.resize(*size)
                    view.theme(theme)
                    view.script("document.activeElement.blur(); scrollTo(0, 0)")
                    time.sleep(1)
                    be_ready(view)
                    suffix = "" if theme == "light" else "-dark"
                    browser.driver.save_screenshot(str(folder / f"gateway-{name}{suffix}.png"))


main()
