"""A real browser without a window, and a web server for its pages."""

import http.server
import os
import threading

from selenium import webdriver
from selenium.webdriver.chrome.service import Service
from selenium.webdriver.support.ui import WebDriverWait

_OPTIONS = (
    "--headless=new",
    # The browser's sandbox does not start for root or inside a user namespace.
    "--no-sandbox",
    "--disable-gpu",
    "--disable-quic",
    "--no-first-run",
    "--disable-background-networking",
    "--disable-component-update",
    "--disable-sync",
    "--disable-dev-shm-usage",
)
# The tests disable these, because some browsers lack them and the daemon must not depend on them.
_PROTECTIONS = ("LocalNetworkAccessChecks", "BlockInsecurePrivateNetworkRequests")


class Browser:
    """One Chromium with an empty profile in `folder`."""

    def __init__(self, folder):
        options = webdriver.ChromeOptions()
        for option in _OPTIONS:
            options.add_argument(option)
        options.add_argument(f"--disable-features={','.join(_PROTECTIONS)}")
        options.add_argument(f"--user-data-dir={folder}")
        options.set_capability("goog:loggingPrefs", {"browser": "ALL"})
        # The browser keeps some files outside its profile.
        environment = {**os.environ, "HOME": str(folder), "TMPDIR": str(folder)}
        service = Service("/usr/bin/chromedriver", log_path=os.devnull, env=environment)
        self._driver = webdriver.Chrome(service=service, options=options)
        self._driver.set_page_load_timeout(10)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self._driver.quit()

    @property
    def driver(self):
        return self._driver

    def show(self, url):
        self._driver.get(url)

    def wait_for_title(self, title, timeout=10.0):
        WebDriverWait(self._driver, timeout, poll_frequency=0.01).until(
            lambda driver: driver.title == title
        )


class PageServer:
    """Serves `page` under every path. Takes a listening socket and closes it at the end."""

    def __init__(self, listening_socket):
        self.page = ""
        self._server = http.server.ThreadingHTTPServer(
            listening_socket.getsockname(), self._handler(), bind_and_activate=False
        )
        self._server.socket.close()
        self._server.socket = listening_socket
        self._server.daemon_threads = True
        self._thread = threading.Thread(target=self._server.serve_forever, args=(0.05,))
        self._thread.start()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self._server.shutdown()
        self._thread.join()
        self._server.server_close()

    @property
    def url(self):
        host, port = self._server.server_address
        return f"http://{host}:{port}/"

    def _handler(owner):
        class Handler(http.server.BaseHTTPRequestHandler):
            def do_GET(self):
                body = owner.page.encode()
                self.send_response(200)
                self.send_header("Content-Type", "text/html; charset=utf-8")
                self.send_header("Content-Length", str(len(body)))
                self.send_header("Cache-Control", "no-store")
                self.end_headers()
                self.wfile.write(body)

            def log_message(self, *_):
                """Prints no requests into the output of the test."""

        return Handler
