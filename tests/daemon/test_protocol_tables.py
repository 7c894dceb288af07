"""The lists of variables in documents, client libraries and gripperctl are those of the daemon."""

import pathlib
import subprocess

import pytest
from harness.children import binary
from harness.protocoltable import names

ROOT = pathlib.Path(__file__).resolve().parents[2]
# gripperctl has its own commands for these.
NOT_SET_BY_HAND = ["NID", "SID", "UPG"]
NO_CONNECTION, WRONG_USAGE = 3, 2


def test_generated_lists_are_up_to_date():
    command = [ROOT / "scripts" / "protocol-tables", "--check", binary("protocol-table")]
    checked = subprocess.run(command, capture_output=True, text=True)
    assert checked.returncode == 0, checked.stdout + checked.stderr


@pytest.mark.parametrize("name", names("set"))
def test_gripperctl_knows_the_set_variables(name):
    command = [binary("gripperctl"), "--host", "127.0.0.1:1", "set", name, "1"]
    status = subprocess.run(command, capture_output=True).returncode
    assert status == (WRONG_USAGE if name in NOT_SET_BY_HAND else NO_CONNECTION)
