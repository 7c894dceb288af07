"""How much a test does: the small number in every run, the large one when asked for by hand."""

import os

LARGE = os.environ.get("GRIPPERD_EFFORT") == "large"


def effort(small, large):
    """`small`, or `large` under scripts/robustness."""
    return large if LARGE else small
