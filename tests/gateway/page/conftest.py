"""Fixtures of the tests of the page: one browser for all tests of a file.

The tests with the mark `short` run in every run, the others with large numbers only.
"""

import pathlib

import pytest
from fakegateway import FakeGateway
from harness.browser import Browser
from harness.effort import LARGE
from pageview import PageView

HERE = pathlib.Path(__file__).resolve().parent


def pytest_configure(config):
    config.addinivalue_line("markers", "short: runs in every run")


def pytest_collection_modifyitems(config, items):
    if LARGE:
        return
    long = [item for item in items if item.path.parent == HERE and not item.get_closest_marker("short")]
    config.hook.pytest_deselected(items=long)
    items[:] = [item for item in items if item not in long]


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
