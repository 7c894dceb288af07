"""The Python package: its wheel, its types, and its likeness to the C++ library."""

import dataclasses
import inspect
import re
import subprocess
import sys
import venv

import pytest
from harness.pythonclient import PACKAGE, aio, blocking

EXAMPLES = PACKAGE.parents[1] / "examples"
HEADERS = PACKAGE.parent / "cpp" / "include" / "gripper"
# 40 lines that use most results.
PROGRAM = '''\
import asyncio
from typing import List, Optional, Tuple

from gripperd_client import Fault, Image, Line, ObjectMet, Outage, Reached, UpgradeStage, aio


def grip(host: str) -> Optional[int]:
    with Line(host, timeout=2) as line:
        line.wait_until_running([9])
        ids: Tuple[int, ...] = line.grippers()
        running: bool = line.state().running
        with line.gripper(9) as gripper:
            gripper.activate()
            try:
                result = gripper.close(force=100)
            except Fault as fault:
                code: int = fault.code
                return code
            if isinstance(result, ObjectMet):
                return result.position
            done: Reached = result
            position: Optional[int] = gripper.image().position
            with line.maintenance():
                gripper.set({"MUTE": 1})
            stages: List[UpgradeStage] = []
            version: str = gripper.upgrade(stages.append)
            return position if done.reached and running and ids and version else None


async def watch(host: str) -> None:
    async with aio.Line(host) as line:
        gripper = await line.gripper(9)
        moved = await gripper.move(80, 255, 100)
        effort: int = moved.effort
        async for item in line.watch(rate=10):
            if isinstance(item, Outage):
                print(item.reason.value, item.since.wall, effort)
            else:
                image: Image = item
                print(image.id, image.position)


asyncio.run(watch("::1"))
'''


def run(*command, **options):
    done = subprocess.run(command, capture_output=True, text=True, timeout=100, **options)
    assert done.returncode == 0, done.stdout + done.stderr
    return done.stdout


@pytest.fixture(scope="module")
def environment(tmp_path_factory):
    """The python of an environment into which only the wheel is installed."""
    folder = tmp_path_factory.mktemp("package")
    build = "-m hatchling build -t wheel"
    assert build in (PACKAGE.parents[1] / "docs" / "clients.md").read_text(encoding="utf-8")
    run(sys.executable, "-B", *build.split(), "-d", folder, cwd=PACKAGE)
    (wheel,) = folder.glob("*.whl")
    venv.create(folder / "empty", with_pip=True)
    python = folder / "empty" / "bin" / "python"
    run(python, "-m", "pip", "install", "-q", "--no-index", wheel)
    return python


def test_the_wheel_installs_without_an_index(environment, tmp_path):
    show = "import gripperd_client as g, gripperd_client.aio as a; print(g.__file__, g.__version__, a.Line)"
    text = run(environment, "-W", "error", "-c", show, cwd=tmp_path)
    version = run(PACKAGE.parents[1] / "scripts" / "version", "--python").strip()
    assert "site-packages" in text and f" {version} " in text
    assert blocking.__version__ == "0+source"
    installed = run(environment, "-m", "pip", "list", "--format=freeze")
    names = {line.split("==")[0] for line in installed.split()}
    assert names - {"pip", "setuptools", "wheel"} == {"gripperd-client"}


def test_the_package_and_programs_have_exact_types(environment, tmp_path):
    (tmp_path / "program.py").write_text(PROGRAM, encoding="utf-8")
    assert len(PROGRAM.splitlines()) in range(40, 48)
    options = ["--strict", "--python-version", "3.8", "--cache-dir", tmp_path / "cache"]
    options += ["--python-executable", environment]
    assert "no issues" in run("mypy", *options, "-p", "gripperd_client", cwd=tmp_path)
    examples = [EXAMPLES / "grip.py", EXAMPLES / "grip_async.py"]
    assert "no issues found in 3" in run("mypy", *options, "program.py", *examples, cwd=tmp_path)
    wrong = PROGRAM.replace("effort: int", "effort: str")
    (tmp_path / "program.py").write_text(wrong, encoding="utf-8")
    checked = subprocess.run(
        ["mypy", *options, "program.py"], cwd=tmp_path, capture_output=True, text=True
    )
    assert "Incompatible types" in checked.stdout


def public(kind):
    return {name for name in vars(kind) if not name.startswith("_")}


CLASSES = ["Line", "Gripper", "Watch", "Maintenance"]


@pytest.mark.parametrize("name", CLASSES)
def test_blocking_and_asyncio_have_the_same_methods(name):
    ours, theirs = getattr(blocking, name), getattr(aio, name)
    assert public(ours) == public(theirs)
    for member in public(ours):
        assert getattr(theirs, member).__doc__, member
        if callable(getattr(ours, member)):
            signatures = [inspect.signature(getattr(kind, member)) for kind in (ours, theirs)]
            assert signatures[0].parameters == signatures[1].parameters, member


# Python and C++. Each difference has its reason.

DIFFERENCES = {
    "Watch.next": "__next__ in Python",
    "Watch.begin": "__iter__ in Python",
    "Watch.end": "__iter__ in Python",
    "Watch.close": "C++ ends the connections with the object",
    "Maintenance.end": "the end of the with block in Python",
    "Maintenance.leave_muted": "gripperctl keeps polling muted for a bootloader; Python programs set MUTE for that",
    "Again": "a bool in Python, where arguments have names",
    "Deadline": "a number of seconds in Python",
    "Endpoint": "a host and a port in Python",
    "Options": "arguments of Line in Python, and the cancelling of tasks by asyncio",
    "Connection": "gripperctl measures and sends lines of its user; Python has the standard library for this",
    "Batch": "for a Connection",
    "Pair": "for a Connection",
    "Reply": "for a Connection",
    "ReplyReader": "for a Connection",
    "Seconds": "float in Python",
    "Values": "the base of Image in both; Python does not export it",
    "LineValues": "the base of LineImage in both; Python does not export it",
    "CommunicationError": "a tuple of three errors would be its Python form",
    "Error": "GripperError in Python",
    "GripperError": "Error in C++",
    "GET_VARIABLES": "a constant",
    "SET_VARIABLES": "a constant",
    "OutageReason": "Outage::Reason in C++",
    "Interference.what": "what() of every exception in C++",
}


def only_these_differ(ours, theirs, of=""):
    known = {name.rpartition(".")[2] for name in DIFFERENCES if name.rpartition(".")[0] == of}
    return ours ^ theirs == known


def headers(*names):
    paths = [HEADERS / f"{name}.h" for name in names] if names else sorted(HEADERS.glob("*.h"))
    text = "".join(path.read_text(encoding="utf-8") for path in paths)
    return re.sub(r"//[^\n]*", "", text)


def snake(name):
    return re.sub(r"(?<!^)[A-Z]", lambda m: "_" + m[0], name).lower()


def cpp_body(name):
    """The public part of a class or struct."""
    body = re.search(rf"\n(?:class|struct) {name}\b[^;{{]*\n\{{(.*?)\n\}};", headers(), re.DOTALL)[1]
    return re.split(r"\nprivate:", body)[0]


def cpp_methods(name):
    """The public methods of a class, with names as Python writes them."""
    # A nested class, a default value or an initialised constant contains no method of this class.
    shown = re.sub(r"\n    class .*?\n    \};", "", cpp_body(name), flags=re.DOTALL)
    shown = re.sub(r"\{[^{}]*\}", "", shown)
    found = set(re.findall(r"^    [A-Za-z:_<> ,&]*?[ &>](\w+)\(", shown, re.MULTILINE)) - {name, "operator"}
    return {snake(method) for method in found}


@pytest.mark.parametrize("name", CLASSES)
def test_python_and_cpp_have_the_same_methods(name):
    theirs = cpp_methods(name)
    assert len(theirs) >= 2
    assert only_these_differ(public(getattr(blocking, name)), theirs, name)


def test_python_and_cpp_have_the_same_types():
    kinds = r"^(?:class|struct|enum class|using) (\w+)\b(?!;)"
    theirs = set(re.findall(kinds, headers(), re.MULTILINE))
    assert {"Line", "Fault", "MoveResult", "Status"} < theirs
    assert only_these_differ(set(blocking.__all__), theirs)


def error_values(kind):
    """The arguments of an error, which are also its attributes."""
    if not inspect.isfunction(kind.__init__):
        return set()
    return inspect.signature(kind).parameters.keys() - {"message"}


def test_python_and_cpp_have_the_same_values_of_errors():
    classes = re.findall(r"^class (\w+) : public (\w+)\n\{(.*?)^\};", headers("errors"), re.DOTALL | re.MULTILINE)
    values = {name: set(re.findall(r"(\w+)\(\) const noexcept", body)) for name, _, body in classes}
    assert values["CommunicationError"] == {"unknown"}
    for name, base, _ in classes:
        if name not in DIFFERENCES:
            theirs = values[name] | values.get(base, set())
            assert only_these_differ(error_values(getattr(blocking, name)), theirs, name), name


@pytest.mark.parametrize("name", ["Image", "LineImage", "LineState", "Outage", "Reached", "ObjectMet", "ReadingTime"])
def test_python_and_cpp_have_the_same_fields_of_results(name):
    members = r"^    (?:static constexpr )?[\w:<>]+ (\w+)(?: = [^;]*)?;"
    theirs = {snake(member) for member in re.findall(members, cpp_body(name), re.MULTILINE)}
    base = re.search(rf"struct {name} : (\w+)", headers())
    if base:
        theirs |= {snake(member) for member in re.findall(members, cpp_body(base[1]), re.MULTILINE)}
        theirs |= {snake(m) for m in re.findall(r"^    std::optional<.*> (\w+);", cpp_body(base[1]), re.MULTILINE)}
    assert theirs == {field.name for field in dataclasses.fields(getattr(blocking, name))}


# A limit or a time of the library is written once in each language.

ONLY_PYTHON = {
    "default_timeout": "Options::timeout in C++",
    "chunk": "a buffer",
    "max_unread": "C++ reads only when it waits for a reply",
    "shown_length": "the length of a text in messages",
}


def number(text):
    numbers = [float(word) for word in text.split(",")]
    return numbers[0] if len(numbers) == 1 else numbers


def test_python_and_cpp_have_the_same_constants():
    theirs = {}
    for path in [*HEADERS.glob("*.h"), *HEADERS.parents[1].glob("src/*.cpp")]:
        text = path.read_text(encoding="utf-8")
        for name, value in re.findall(r"constexpr [^=;{]*?(\w+)(?:\{| = )([\d., ]+)\}?;", text):
            theirs.setdefault(snake(name), []).append(number(value))
    ours = {}
    for path in (PACKAGE / "gripperd_client").glob("*.py"):
        text = path.read_text(encoding="utf-8")
        for name, value in re.findall(r"^_?([A-Z]\w+) = \(?([\d._, ]+?)\)?$", text, re.MULTILINE):
            ours[name.lower()] = number(value.replace("_", ""))
    assert {"settling", "settling_per_gripper", "movement_timeout", "scanned_ids"} < ours.keys()
    assert ours.keys() - theirs.keys() == ONLY_PYTHON.keys()
    for name in ours.keys() & theirs.keys():
        assert theirs[name] == [ours[name]], name
