"""Runs the real daemon on a line of ptys, in namespaces of its own."""
