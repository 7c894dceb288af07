"""The amount of work in a test: small in every run, large under scripts/robustness."""

import os

LARGE = os.environ.get("GRIPPERD_EFFORT") == "large"


def effort(small, large):
    """Returns `large` under scripts/robustness, otherwise `small`."""
    return large if LARGE else small
