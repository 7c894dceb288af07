"""The files of the page: their size, their texts, foreign parts, and the modules that need no document."""

import hashlib
import os
import pathlib
import re
import shutil
import subprocess

import pytest

from fakegateway import PAGE

HERE = pathlib.Path(__file__).resolve().parent
pytestmark = pytest.mark.short
SERVED = (".html", ".css", ".js", ".svg")
LIMIT = 250_000


def served_files():
    return [path for path in PAGE.rglob("*") if path.suffix in SERVED and path.parent.name != "source"]


def own_files():
    return [path for path in served_files() if "vendor" not in path.parts]


def test_the_page_is_small(figure):
    size = sum(path.stat().st_size for path in served_files())
    figure(f"{size / 1000:.0f} KB in {len(served_files())} files")
    assert size <= LIMIT


@pytest.mark.parametrize("folder", [PAGE / "vendor" / "uplot", HERE / "vendor" / "axe-core"], ids=lambda one: one.name)
def test_foreign_parts_are_unchanged(folder):
    listed = {}
    for line in (folder / "SHA256SUMS").read_text().splitlines():
        digest, name = line.split()
        listed[name] = digest
    files = {str(path.relative_to(folder)) for path in folder.rglob("*") if path.is_file()}
    assert files == {*listed, "README", "SHA256SUMS"}
    for name, digest in listed.items():
        assert hashlib.sha256((folder / name).read_bytes()).hexdigest() == digest, name


def test_the_policy_finds_no_inline_script_or_style():
    page = (PAGE / "index.html").read_text()
    assert not re.search(r"<style|<script(?![^>]*\bsrc=)|\sstyle=|\son[a-z]+=|https?:|javascript:", page)


def test_a_screen_keyboard_makes_the_page_shorter():
    """Without this, Chrome on Android lays its keyboard over Stop. The browser of the tests has no such keyboard."""
    viewport = re.search(r'<meta name="viewport" content="([^"]*)"', (PAGE / "index.html").read_text())
    assert "interactive-widget=resizes-content" in viewport.group(1).split(", ")


def test_every_text_exists_and_is_used():
    texts = re.findall(r'^    "([^"]+)":', (PAGE / "texts.en.js").read_text(), re.MULTILINE)
    assert len(texts) == len(set(texts))
    sources = "\n".join(path.read_text() for path in own_files() if path.name != "texts.en.js")
    named = set(re.findall(r'data-(?:text|label)="([^"]+)"', sources))
    named |= set(re.findall(r'\btext\(\s*"([^"]+)"', sources))
    assert named - set(texts) == set()
    # The rest of a name is computed: "error.${code}".
    starts = set(re.findall(r"`([a-z]+(?:\.[a-z]+)*\.)\$\{", sources))
    quoted = set(re.findall(r'"([a-z]+(?:[.-][a-z]+)*)"', sources))
    unused = [key for key in texts if key not in quoted and key not in named and not key.startswith(tuple(starts))]
    assert unused == []


def test_no_text_is_outside_of_the_file_of_texts():
    page = (PAGE / "index.html").read_text()
    assert re.findall(r">\s*([A-Za-z][^<]*)<", page) == []
    assert re.findall(r'\s(?:title|alt|placeholder|value|aria-label)="[^"]*[A-Za-z][^"]*"', page) == []


def test_modules(tmp_path):
    """As modules, for versions of node that do not look into the files."""
    copy = shutil.copytree(PAGE, tmp_path / "page")
    (copy / "package.json").write_text('{"type": "module"}')
    done = subprocess.run(
        ["node", "--test", str(HERE / "page.test.mjs")],
        env={**os.environ, "PAGE_FOLDER": str(copy)}, capture_output=True, text=True, timeout=60, check=False,
    )
    assert done.returncode == 0, done.stdout + done.stderr
