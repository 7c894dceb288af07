"""A daemon on a line of simulated grippers with bootloaders."""

import contextlib

from .simulator import Simulator


class Bench:
    """Simulated grippers that restart quickly, and a daemon that discovers them."""

    simulator = Simulator

    def __init__(self, start_daemon, connect, *grippers, options=(), link="/dev/ttyTool", **daemon):
        grippers = grippers or ("9=TA3-1.6.13",)
        quick = ["--boot-ms=200", "--bootloader-boot-ms=100"]
        self.line = self.simulator(*grippers, *quick, *options, link=link)
        self.ids = [int(gripper.split("=")[0]) for gripper in grippers]
        self.daemon = start_daemon(**daemon)
        self.connect = connect

    def ready(self):
        self.daemon.wait_until_found(*self.ids)
        self.client = self.connect()
        self.log_mark = self.daemon.mark()
        return self

    def messages(self):
        return self.daemon.messages(self.log_mark)


@contextlib.contextmanager
def benches(kind, *parts):
    """Yields make(...), which returns a ready bench of this kind. The lines stay until the end."""
    with contextlib.ExitStack() as lines:

        def make(*arguments, **options):
            bench = kind(*parts, *arguments, **options)
            lines.enter_context(bench.line)
            return bench.ready()

        yield make
