"""Fixtures of the tests of the page: one browser for all tests of a file."""

import pytest
from fakegateway import FakeGateway
from harness.browser import Browser
from pageview import PageView


@pytest.fixture(scope="module")
def browser(tmp_path_factory):
    with Browser(tmp_path_factory.mktemp("browser")) as started:
        yield started


@pytest.fixture
def view(browser):
    return PageView(browser.driver)


@pytest.fixture
def gateway(view):
    """A scripted gateway whose page the browser shows.

    The console must stay empty, and the page may load only from its own host.
    """
    with FakeGateway() as started:
        try:
            view.show(started.url)
            yield started
            view.check()
        finally:
            # Before the gateway ends, because the page would report it.
            view.close()
