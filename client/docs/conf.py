# The configuration of Sphinx for scripts/client-docs.
import pathlib
import sys

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "python"))

project = "gripperd_client"
extensions = ["sphinx.ext.autodoc", "sphinx.ext.napoleon"]
autodoc_member_order = "bysource"
default_role = "py:obj"
html_theme = "alabaster"
html_show_sphinx = False
