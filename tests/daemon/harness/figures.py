"""Values that tests measured, for people to read."""

import os


class Figures:
    """Collects lines of text and appends them to the file that GRIPPERD_FIGURES names, if any."""

    def __init__(self):
        self.lines = []

    def add(self, test, text):
        line = f"{test}: {text}"
        self.lines.append(line)
        path = os.environ.get("GRIPPERD_FIGURES")
        if path:
            # A single write in append mode keeps the lines of parallel test files apart.
            with open(path, "a", encoding="utf-8") as file:
                file.write(line + "\n")


def percentile(values, share):
    """Returns the value that `share` (0 to 1) of the values do not exceed."""
    ordered = sorted(values)
    return ordered[min(len(ordered) - 1, int(share * len(ordered)))]
