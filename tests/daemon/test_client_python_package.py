"""The Python package: its wheel, its types, and its likeness to the C++ library."""

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
    build = "from hatchling.builders.wheel import WheelBuilder as B; import sys; "
    build += "print(next(B(sys.argv[1]).build(directory=sys.argv[2])))"
    wheel = run(sys.executable, "-B", "-c", build, PACKAGE, folder).strip()
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


@pytest.mark.parametrize("name", ["Line", "Gripper", "Watch", "Maintenance"])
def test_blocking_and_asyncio_have_the_same_methods(name):
    ours, theirs = getattr(blocking, name), getattr(aio, name)
    assert public(ours) == public(theirs)
    for member in public(ours):
        assert getattr(theirs, member).__doc__, member


def cpp_methods(name):
    """The public methods of a class, with names as Python writes them."""
    text = (HEADERS / f"{name.lower()}.h").read_text(encoding="utf-8")
    text = re.sub(r"//[^\n]*", "", text)
    body = re.search(rf"\nclass {name}\n\{{(.*?)\n\}};", text, re.DOTALL)[1]
    shown = re.search(r"public:(.*?)(?:private:|\Z)", body, re.DOTALL)[1]
    # A default value or an initialised constant contains no declaration of a method.
    shown = re.sub(r"\{[^{}]*\}", "", shown)
    found = set(re.findall(r"^    [A-Za-z:_<> ,&]*?[ &>](\w+)\(", shown, re.MULTILINE)) - {name}
    return {re.sub(r"[A-Z]", lambda m: "_" + m[0].lower(), method) for method in found}


@pytest.mark.parametrize("name", ["Line", "Gripper"])
def test_python_and_cpp_have_the_same_methods(name):
    theirs = cpp_methods(name)
    assert {"watch", "image"} < theirs
    assert public(getattr(blocking, name)) == theirs


def cpp_errors():
    text = (HEADERS / "errors.h").read_text(encoding="utf-8")
    return set(re.findall(r"^class (\w+)", text, re.MULTILINE)) - {"Error", "CommunicationError"}


def test_python_and_cpp_have_the_same_errors():
    ours = {
        name
        for name, kind in vars(blocking).items()
        if isinstance(kind, type) and issubclass(kind, blocking.GripperError)
    }
    assert ours - {"GripperError"} == cpp_errors()
