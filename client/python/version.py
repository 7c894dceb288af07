"""The version, for the build of the package."""

import pathlib
import re
import subprocess

_folder = pathlib.Path(__file__).resolve().parent
_information = _folder / "PKG-INFO"
if _information.exists():
    # A source distribution, apart from the tree.
    __version__ = re.findall(r"^Version: (.+)$", _information.read_text(encoding="utf-8"), re.MULTILINE)[0]
else:
    _script = _folder.parents[1] / "scripts" / "version"
    __version__ = subprocess.run(
        [_script, "--python"], check=True, stdout=subprocess.PIPE, text=True
    ).stdout.strip()
