"""The daemon's own tables, as protocol-table prints them."""

import json
import subprocess

from .children import binary


def rows(keyword):
    """Returns the rows of the "get", "set" or "families" table as dictionaries."""
    printed = subprocess.run([binary("protocol-table")], stdout=subprocess.PIPE, check=True).stdout
    return json.loads(printed)[keyword]


def names(keyword):
    return [row["name"] for row in rows(keyword)]
