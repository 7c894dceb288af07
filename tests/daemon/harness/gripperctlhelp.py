"""The lists in the help of gripperctl."""

import re

from .gripperctl import succeed


def section(text, title):
    return re.search(rf"^{title}:\n((?:  .*\n)+)", text, re.MULTILINE)[1]


def commands():
    return re.findall(r"^  (\w+)", section(succeed("--help"), "Commands"), re.MULTILINE)


def options(*words):
    return set(re.findall(r"^  (?:-\w, )?(--\w+)", section(succeed(*words, "--help"), "Options"), re.MULTILINE))


def exit_codes():
    return re.findall(r"^  (\d+) ", section(succeed("--help"), "Exit codes"), re.MULTILINE)
