"""The manual page and --help agree."""

import json
import os
import pathlib
import re
import subprocess

import pytest
from harness.gripperctl import ScriptedDaemon, ctl, succeed
from harness.gripperctlhelp import commands, exit_codes, options

ROOT = pathlib.Path(__file__).resolve().parents[2]
PAGE = ROOT / "man" / "gripperctl.1"


@pytest.fixture(scope="module")
def page():
    return subprocess.run(
        ["groff", "-man", "-Tascii", "-rLL=100n", "-P-cbou", PAGE],
        check=True, capture_output=True, text=True, env={**os.environ, "LC_ALL": "C"},
    ).stdout


PAGES = sorted(PAGE.parent.iterdir())


@pytest.mark.parametrize("path", PAGES, ids=lambda path: path.name)
def test_every_page_is_well_formed(path):
    run = subprocess.run(
        ["groff", "-man", "-ww", "-z", path], check=True, capture_output=True, text=True
    )
    assert run.stderr == ""


@pytest.mark.parametrize("path", PAGES, ids=lambda path: path.name)
def test_every_page_refers_to_existing_pages(path):
    """Only our own pages are checked: other packages may be missing here."""
    ours = {page.name for page in PAGES}
    named = re.findall(r"^\.(?:BR|IR) ([\w-]+) \((\d)\)", path.read_text(), re.MULTILINE)
    assert any(name.startswith("gripper") for name, _ in named)
    for name, number in named:
        assert not name.startswith(("gripper", "romflasher")) or f"{name}.{number}" in ours


def test_the_page_lists_every_command_with_its_options(page):
    general = options()
    for command in commands():
        entry = re.search(rf"^ {{7}}(open, )?{command}\b.*", page, re.MULTILINE)
        assert entry, command
        for option in options(command) - general:
            assert option in entry[0] or (command, option) == ("plot", "--output"), entry[0]
    for option in general | {"--output"}:
        assert re.search(rf"^ +(-\w, )?{option}\b", page, re.MULTILINE), option


def test_the_page_lists_every_exit_code(page):
    assert re.findall(r"^ {7}(\d+) {3,}", page, re.MULTILINE) == exit_codes()


def members(tree):
    """Returns the names of an object's members and of the members in its lists."""
    for name, value in tree.items():
        yield name
        for inner in value if isinstance(value, list) else []:
            yield from members(inner) if isinstance(inner, dict) else ()


@pytest.mark.parametrize("words", [
    ["status"], ["doctor"], ["scan"], ["watch", "--count", "1"], ["set", "MSC", "3"], ["activate"],
    ["activate", "--again"], ["move", "5"], ["move", "0", "--wait"], ["open"], ["close"], ["release"],
    ["stop"], ["wait", "daemon"], ["wait", "active"], ["hz", "--seconds", "0.2"], ["ping", "--count", "1"],
    ["raw", "GET POS"], ["led", "red"], ["rename", "9", "2"], ["upgrade", "--yes", "--expect", "TA3-1.0.0"],
    ["record", "some.csv", "--seconds", "0.1"], ["move", "999"],
], ids=" ".join)
def test_the_page_names_every_member_of_the_json(page, words, tmp_path):
    def answer(request):
        if request == "SET NID 2":
            daemon.values["SID"] = "[2]"
        if request == "SET UPG 1":
            daemon.values["DRI"] = "ERR_SCANNING (EIO)"
        if request == "SET GTO 0":
            daemon.values["GTO"] = "0"
        if request == "GET COU":
            # hz has a result only if values change.
            daemon.values["COU"] = str(len(daemon.requests) % 256)
        return daemon.usual(request)

    with ScriptedDaemon(answer, GTO="1", PRE="000", OBJ="3") as daemon:
        run = ctl("--json", "--host", daemon.host, *words, cwd=tmp_path)
    seen = {name for line in run.stdout.splitlines() for name in members(json.loads(line))}
    assert seen <= set(re.findall(r"\w+", page)), seen
    chapter = page.split("\nJSON\n")[1].split("\nNOTES\n")[0]
    entry = re.search(rf"^ {{7}}(?:[a-z]+, )*{words[0]}\b.*\n((?: {{10,}}.*\n)*)", chapter, re.MULTILINE)
    assert {"error", "exitCode"} <= seen or seen <= set(re.findall(r"\w+", entry[0])), entry[0]
    assert ("error" in seen) == (run.returncode != 0) == (words[-1] == "999"), run


def test_every_command_has_its_help():
    assert commands()[0] == "status" and len(commands()) == 21
    for command in commands():
        assert succeed(command, "--help").startswith(f"Usage: gripperctl [OPTION]... {command}")


def test_the_version():
    number = re.search(r"\((\d+\.\d+\.\d+)", (ROOT / "debian" / "changelog").read_text())[1]
    commit = r"(~0|[~+]git\d{14}\.[0-9a-f]{8}(\+mod)?)?"
    assert re.fullmatch(re.escape(f"gripperctl {number}") + commit + "\n", succeed("--version"))
