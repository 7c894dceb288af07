"""The run that scripts/soak starts, in its own namespaces."""

import argparse
import contextlib
import os
import pathlib
import random
import resource
import signal
import sys
import tempfile
import time

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "daemon"))

from harness import ports
from harness.daemon import LOG_LINE, QUIT_LIMIT, SANITIZED, Daemon
from harness.figures import percentile
from harness.flashing import make_image
from harness.upgrades import put_real_flasher
from harness.waiting import eventually

from behaviours import PROBE_LIMIT, PROBE_MEDIAN_LIMIT, PROBE_P99_LIMIT, Prober, start_all
from lineside import UPGRADED, VISIT_LIMIT, Disturber, SoakLine, listed, watch_visits
from replies import StrictClient
from resources import BUDGET, Resources
from world import SLOWNESS, World

PROGRESS_PERIOD = 60.0
QUIET_LIMIT = 40.0
SIGNALS = (signal.SIGINT, signal.SIGTERM, signal.SIGHUP)


class Stopped(Exception):
    """A signal has ended the run."""


def on_signal(*_):
    # Another signal must not interrupt the clean-up.
    for number in SIGNALS:
        signal.signal(number, signal.SIG_IGN)
    raise Stopped


def say(text=""):
    print(text, flush=True)


class Soak:
    def __init__(self, world, line, daemon, minutes):
        self.world = world
        self.line = line
        self.daemon = daemon
        self.minutes = minutes
        self.resources = Resources(world, daemon)
        self.prober = Prober(world)
        self.threads = [*start_all(world), *Disturber(world, line).threads]
        self._progressed_at = 0.0

    def run(self):
        end = self.minutes * 60
        while self.world.now() < end and self.daemon.is_running():
            time.sleep(1)
            self.world.record_stall()
            if not self.daemon.is_running():
                break
            self.resources.check()
            watch_visits(self.world, self.line)
            if self.world.now() - self._progressed_at >= PROGRESS_PERIOD:
                self._progress()
        if self.daemon.is_running():
            self.resources.check_cpu()
        self.world.judge("stays alive", self.daemon.is_running(), "the daemon has ended")

    def _progress(self):
        self._progressed_at = self.world.now()
        share = self.resources.check_cpu()
        say(
            f"{self.world.now() / 60:5.1f} min: {self.world.checks['replies']} replies judged, "
            f"{self.line.frames['visits']} visits, {self.daemon.resident_kib() // 1024} MiB, "
            f"{share:.0%} of a core, {len(self.world.failures)} failures"
        )

    def check_recovery(self):
        """Ends all clients and faults. The daemon must find all grippers and carry out requests."""
        self.world.stopped.set()
        for thread in self.threads:
            thread.join(150)
            self.world.judge("connections", not thread.is_alive(), f"{thread.name} did not end")
        if not self.daemon.is_running():
            return
        self.line.command("clear")
        try:
            with StrictClient(self.world, "last client") as client:
                client.set_expecting("MUTE 0 THROTTLE 0")
                client.set_expecting("SCN_BLOCK", timeout=QUIET_LIMIT)
                all_ids = self.line.grippers()
                eventually(lambda: client.get_all("SID") == [listed(all_ids)], QUIET_LIMIT, "all")
                eventually(lambda: client.get_all("DRI") == ["RUNNING"], QUIET_LIMIT, "running")
                for slave_id in all_ids:
                    self._command(client, slave_id)
            self.world.passes("recovers")
        except Exception as problem:
            self.world.fails("recovers", repr(problem))

    def _command(self, client, slave_id):
        client.set_expecting(f"SID {slave_id}")
        for position in (17, 99):
            client.set_expecting(f"POS {position} SPE 31 FOR 41")
            wanted = bytes([position, 31, 41])
            eventually(
                lambda end=wanted: self.line.last_write.get(slave_id, b"").endswith(end),
                10 * SLOWNESS,
                f"position {position} of {slave_id} on the line",
            )

    def quit(self):
        if self.daemon.is_running():
            began = time.monotonic()
            status, seconds = self.daemon.stop(timeout=60)
            self.world.judge("quits", status == 0, f"with status {status}")
            self.world.judge_time("quits", seconds, QUIT_LIMIT, "quitting", began)
        strange = [line for line in self.daemon.lines if not LOG_LINE.match(line)]
        # A message with a final line feed leaves the end of the form on a separate line.
        strange = [line for line in strange if not line.startswith(("Info: error", " (("))]
        self.world.judge("log format", not strange, f"{strange[:3]}")

    def judge_waits(self):
        if not self.prober.waits:
            self.world.fails("latency", "no probe was answered")
            return
        for share, limit in ((0.5, PROBE_MEDIAN_LIMIT), (0.99, PROBE_P99_LIMIT)):
            wait = percentile(self.prober.waits, share)
            text = f"{share:.0%} of the probes took up to {wait:.3f} s, limit {limit:.3f} s"
            self.world.judge("latency", wait <= limit, text)

    def table(self):
        world, waits = self.world, self.prober.waits
        ms = [f"{percentile(waits or [0.0], share) * 1000:.1f}" for share in (0.5, 0.99, 1.0)]
        not_judged = ", ".join(f"{k} {v:.0f} s" for k, v in sorted(world.suspended_seconds.items()))
        rows = [
            ("seed", world.seed),
            ("time", f"{world.now() / 60:.1f} min"),
            ("replies judged", world.checks["replies"]),
            *sorted(world.counts.items()),
            ("frames on the line", f"{self.line.frames['>']} out, {self.line.frames['<']} back"),
            ("visits, writes", f"{self.line.frames['visits']}, {self.line.frames['writes']}"),
            ("line not judged", not_judged),
            ("time of a probe", f"{ms[0]} ms, 99 %: {ms[1]} ms, longest: {ms[2]} ms"),
            ("memory", f"{self.resources.base_kib} KiB, at most {self.resources.most_kib} KiB"),
            ("descriptors", f"at most {self.resources.most_descriptors} beside those of clients"),
            ("processor time", f"at most {self.resources.highest_share:.0%} of a core"),
            ("log", f"{len(self.daemon.lines)} lines"),
            ("longest stall", f"{world.stall_of_the_run() * 1000:.0f} ms, of the machine"),
        ]
        say()
        for name, value in rows:
            say(f"{name:20} {value}")
        say()
        failures = {name for _, name, _ in world.failures}
        for name in sorted(set(world.checks) | failures):
            verdict = "FAILED" if name in failures else "passed"
            skipped = world.skipped[name]
            note = f", {skipped} not judged during stalls of the machine" if skipped else ""
            say(f"{name:20} {verdict}, judged {world.checks[name]} times{note}")


def keep_log(world, daemon, path):
    path.parent.mkdir(parents=True, exist_ok=True)
    with open(path, "w", encoding="utf-8") as file:
        for at, line in zip(daemon.times, daemon.lines):
            file.write(f"{at - world.started:10.3f} {line}\n")
    say(f"{len(world.failures)} failures; the daemon's log is in {path}")


def soak(minutes, seed, log):
    world = World(seed)
    with contextlib.ExitStack() as stack:
        folder = pathlib.Path(stack.enter_context(tempfile.TemporaryDirectory()))
        os.chdir(folder)
        stack.callback(os.chdir, "/")
        put_real_flasher(folder)
        (folder / "firmware").mkdir()
        make_image(folder / "firmware", UPGRADED, 4096)
        line = stack.enter_context(SoakLine())
        daemon = Daemon(cwd=folder)
        stack.callback(daemon.kill)
        stack.callback(world.stopped.set)
        daemon.wait_until_listening(20)
        run = Soak(world, line, daemon, minutes)
        run.run()
        run.check_recovery()
        run.quit()
        run.judge_waits()
        run.table()
        if world.failures:
            keep_log(world, daemon, log)
    return 1 if world.failures else 0


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("minutes", type=float)
    parser.add_argument("--seed", type=int, default=random.SystemRandom().randrange(1_000_000))
    parser.add_argument("--log", type=pathlib.Path, required=True)
    options = parser.parse_args()
    for number in SIGNALS:
        signal.signal(number, on_signal)
    _, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
    resource.setrlimit(resource.RLIMIT_NOFILE, (hard, hard))
    ports.hide_the_machines_ports()
    kind = "sanitized programs" if SANITIZED else "release programs"
    say(f"soak: {options.minutes:g} min, {kind}, seed {options.seed}")
    say(f"budget: {BUDGET};")
    say(
        f"  a visit every {VISIT_LIMIT:.0f} s, a probe within {PROBE_LIMIT * 1000:.0f} ms, "
        f"half of them within {PROBE_MEDIAN_LIMIT * 1000:.0f} ms, "
        f"99 % within {PROBE_P99_LIMIT * 1000:.0f} ms, quitting within {QUIT_LIMIT:.0f} s"
    )
    try:
        return soak(options.minutes, options.seed, options.log)
    except Stopped:
        say("interrupted")
        return 130


if __name__ == "__main__":
    sys.exit(main())
