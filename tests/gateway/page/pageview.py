"""The page as an engineer sees and uses it."""

import time
import urllib.parse

from selenium.webdriver.common.action_chains import ActionChains
from selenium.webdriver.common.by import By
from selenium.webdriver.common.keys import Keys

PATIENCE = 10.0
MAX_ROUNDS = 4
# The page drops a second press of the same button within this time, because it may be a double tap.
DOUBLE_TAP = 0.5
# The number of Tabs from the present focus to the control.
TABS_TO = """
const open = document.querySelector("dialog[open]") ?? document;
const stops = [...open.querySelectorAll("button, input, select")].filter((one) => !one.disabled && one.checkVisibility());
const from = stops.indexOf(document.activeElement);
const to = stops.findIndex((one) => one.matches(arguments[0]));
return to > from ? to - from : stops.length - from + Math.max(to, 0);
"""


class PageView:
    def __init__(self, driver):
        self.driver = driver
        self.url = ""
        self.expected = []
        self._pressed = {}

    def show(self, url):
        self.url = url
        self.resize(1024, 768)
        self.theme("light")
        self.driver.get(url)
        self.wait(lambda: self.all(".card") or self.text("no-grippers"))

    def close(self):
        self.driver.get("about:blank")
        self.driver.get_log("browser")

    def check(self):
        """Nothing in the console, except messages that the test announced, and no other host."""
        messages = [entry["message"] for entry in self.driver.get_log("browser")]
        # A new browser shows a page of its own first.
        messages = [text for text in messages if not text.startswith("chrome://")]
        unexpected = [text for text in messages if not any(part in text for part in self.expected)]
        assert unexpected == [], unexpected
        names = self.script("return performance.getEntriesByType('resource').map((entry) => entry.name)")
        own = urllib.parse.urlsplit(self.url).netloc
        hosts = {urllib.parse.urlsplit(name).netloc for name in names}
        assert own in hosts and hosts <= {own, ""}, hosts

    def script(self, text, *arguments):
        return self.driver.execute_script(text, *arguments)

    def resize(self, width, height):
        self.driver.execute_cdp_cmd(
            "Emulation.setDeviceMetricsOverride",
            {"width": width, "height": height, "deviceScaleFactor": 1, "mobile": False},
        )

    def theme(self, name):
        feature = {"name": "prefers-color-scheme", "value": name}
        self.driver.execute_cdp_cmd("Emulation.setEmulatedMedia", {"features": [feature]})

    def all(self, selector):
        return self.driver.find_elements(By.CSS_SELECTOR, selector)

    def one(self, selector):
        return self.driver.find_element(By.CSS_SELECTOR, selector)

    def text(self, element_id):
        return self.script("return document.getElementById(arguments[0]).textContent", element_id)

    def card(self, slave_id, part):
        selector = f".card[data-key='{slave_id}'] [data-part='{part}']"
        return self.script("return document.querySelector(arguments[0])?.textContent", selector)

    def banners(self):
        return self.script("return [...document.querySelectorAll('#banners p')].map((one) => one.textContent)")

    def wait(self, condition, timeout=PATIENCE):
        """Returns the first true result."""
        end = time.monotonic() + timeout
        while not (result := condition()):
            assert time.monotonic() < end, (self.text("message"), self.banners())
            time.sleep(0.01)
        return result

    def wait_for_message(self, part, timeout=PATIENCE):
        return self.wait(lambda: part in self.text("message") and self.text("message"), timeout)

    def wait_for_banner(self, part, timeout=PATIENCE):
        return self.wait(lambda: any(part in banner for banner in self.banners()), timeout)

    def wait_until_enabled(self, element_id):
        self.wait(lambda: self.one(f"#{element_id}").is_enabled())

    def click(self, selector):
        # The bar at the bottom covers what is below it.
        self.script("arguments[0].scrollIntoView({ block: 'center' })", self.one(selector))
        self._wait_after_press(selector)
        self.one(selector).click()
        self._pressed[selector] = time.monotonic()

    def _wait_after_press(self, selector):
        """An engineer who presses a button twice makes a pause."""
        time.sleep(max(0, self._pressed.get(selector, -DOUBLE_TAP) + DOUBLE_TAP - time.monotonic()))

    def press(self, *keys):
        ActionChains(self.driver, duration=0).send_keys(*keys).perform()

    def tab_to(self, selector):
        """Moves the focus with the Tab key only."""
        for _ in range(MAX_ROUNDS):
            if self.script("return document.activeElement.matches(arguments[0])", selector):
                return
            # All at once, because each exchange with the browser takes long on a busy machine.
            self.press(Keys.TAB * self.script(TABS_TO, selector))
        raise AssertionError(f"the Tab key does not reach {selector}")

    def use(self, selector, *keys):
        """Presses the control with the keyboard."""
        self.tab_to(selector)
        self._wait_after_press(selector)
        self.press(*(keys or (Keys.ENTER,)))
        self._pressed[selector] = time.monotonic()

    def pair(self, code="GOOD"):
        self.click("#control-button")
        self.one("#dialog input").send_keys(code, Keys.ENTER)
        self.wait(lambda: not self.script("return document.getElementById('dialog').open"))

    def take_control(self):
        self.wait(lambda: "Take control" in self.text("control-button"))
        self.click("#control-button")
        self.wait(lambda: "You have control" in self.text("control-holder"))

    def set_dial(self, name, value):
        field = self.one(f"#{name}-number")
        field.clear()
        field.send_keys(str(value))
