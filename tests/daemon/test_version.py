"""scripts/version: every commit has a version, and apt and pip sort them in the order of the commits."""

import os
import pathlib
import shutil
import subprocess

import pytest
from packaging.version import Version

ROOT = pathlib.Path(__file__).resolve().parents[2]
COMMIT_TIMES = (1795000000, 1795000001, 1795086400, 1795086401)


def git(tree, *arguments, time=0):
    identity = {"GIT_CONFIG_GLOBAL": os.devnull, "GIT_COMMITTER_DATE": f"{time} +0100"}
    for role in ("AUTHOR", "COMMITTER"):
        identity |= {f"GIT_{role}_NAME": "a", f"GIT_{role}_EMAIL": "a@b"}
    done = subprocess.run(
        ["git", *arguments], cwd=tree, env={**os.environ, **identity}, check=True, capture_output=True
    )
    return done.stdout


def version(tree, *arguments):
    return subprocess.check_output([tree / "scripts" / "version", *arguments], text=True).strip()


def commit(tree, number):
    (tree / "file").write_text(str(number), encoding="utf-8")
    git(tree, "add", ".")
    git(tree, "commit", "--message", str(number), time=COMMIT_TIMES[number])


@pytest.fixture
def tree(tmp_path):
    """A repository with one commit. Its next version is 1.1.0."""
    tree = tmp_path / "tree"
    for name in ("scripts/version", ".gitattributes"):
        (tree / name).parent.mkdir(parents=True, exist_ok=True)
        shutil.copy(ROOT / name, tree / name)
    (tree / "debian").mkdir()
    (tree / "debian" / "changelog").write_text("gripperd (1.1.0) UNRELEASED; urgency=low\n", encoding="utf-8")
    git(tree, "init")
    commit(tree, 0)
    return tree


def assert_sorted(versions):
    for earlier, later in zip(versions, versions[1:]):
        subprocess.run(["dpkg", "--compare-versions", earlier, "lt", later], check=True)


def assert_sorted_for_pip(versions):
    assert all(Version(earlier) < Version(later) for earlier, later in zip(versions, versions[1:])), versions


def test_a_later_commit_has_a_later_version(tree):
    versions = [["1.0.0", "1.1.0~0"], ["1.0.0", "1.1.0.dev0"]]

    def note():
        versions[0].append(version(tree))
        versions[1].append(version(tree, "--python"))

    note()
    (tree / "file").write_text("changed", encoding="utf-8")
    note()
    commit(tree, 1)
    note()
    commit(tree, 2)
    git(tree, "tag", "v1.1.0-rc1")
    note()
    git(tree, "tag", "v1.1.0")
    note()
    assert versions[0][-1] == versions[1][-1] == "1.1.0"
    commit(tree, 3)
    note()
    assert_sorted(versions[0])
    assert_sorted_for_pip(versions[1])


def test_the_version_names_the_commit(tree):
    name = git(tree, "rev-parse", "HEAD").decode()[:8]
    assert version(tree) == f"1.1.0~git20261118110640.{name}"
    assert version(tree, "--python") == f"1.1.0.dev20261118110640+g{name}"


def test_a_changed_tree_is_not_the_release(tree):
    git(tree, "tag", "v1.1.0")
    (tree / "file").write_text("changed", encoding="utf-8")
    assert version(tree).startswith("1.1.0~git") and version(tree).endswith("+mod")


@pytest.mark.parametrize("tag", [None, "v1.0.0", "v1.1.0"])
def test_an_archive_has_the_version_of_its_commit(tree, tmp_path, tag):
    if tag:
        git(tree, "tag", tag)
    archive = tmp_path / "archive"
    archive.mkdir()
    subprocess.run(["tar", "--extract"], cwd=archive, input=git(tree, "archive", "HEAD"), check=True)
    assert version(archive) == version(tree)


def test_a_copy_without_the_repository_has_a_version(tree):
    complete = version(tree)
    shutil.rmtree(tree / ".git")
    assert version(tree) == "1.1.0~0"
    changelog = tree / "debian" / "changelog"
    changelog.write_text(f"gripperd ({complete}) bookworm; urgency=low\n", encoding="utf-8")
    assert version(tree) == complete
    changelog.write_text("gripperd (1.1.0) bookworm; urgency=low\n", encoding="utf-8")
    assert version(tree) == version(tree, "--python") == "1.1.0"
