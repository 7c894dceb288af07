"""The gripper simulator as a child process, controlled by its commands."""

import queue
import subprocess
import threading

from . import modbus
from .children import binary, spawn
from .requestlog import RequestLog


class Simulator(RequestLog):
    """`Simulator("9=TA3-1.6.14", "--object", "9=140")`: grippers, then options.

    `foreign` has the frames that are not Modbus requests, `foreign_rates` their baud rates.
    """

    def __init__(self, *arguments, link="/dev/ttyTool"):
        super().__init__()
        words = ["--link", link, "--trace"]
        for argument in arguments:
            if not argument.startswith("-") and words[-1] not in _WITH_VALUE:
                words.append("--gripper")
            words.append(argument)
        self.process = spawn(
            [binary("gripper-simulator"), *words],
            stdin=subprocess.PIPE,
            stdout=subprocess.PIPE,
        )
        self._answers = queue.Queue()
        self.foreign = []
        self.foreign_rates = []
        self._reader = threading.Thread(target=self._read, daemon=True)
        self._reader.start()
        ready = self._answers.get(timeout=5)
        assert ready.startswith("ready "), ready

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.process.terminate()
        assert self.process.wait(5) == 0
        self._reader.join(5)
        self.process.stdin.close()
        self.process.stdout.close()

    def command(self, command):
        """Sends a command. Returns the lines before its "ok", then the text after the "ok"."""
        self.process.stdin.write(command.encode() + b"\n")
        self.process.stdin.flush()
        lines = []
        while True:
            line = self._answers.get(timeout=5)
            assert not line.startswith("error"), f"{command}: {line}"
            if line == "ok" or line.startswith("ok "):
                return lines + [line[3:]]
            lines.append(line)

    def unplug(self):
        self.command("unplug")

    def plug(self):
        self.command("plug")

    def line_of(self, slave_id):
        """Returns the line of this gripper in the output of "show"."""
        start = f"gripper {slave_id} "
        return next(line for line in self.command("show") if line.startswith(start))

    def state_of(self, slave_id):
        """Returns "firmware", "booting" or "bootloader"."""
        last = self.line_of(slave_id).split()[-1]
        return "firmware" if last.startswith("year=") else last

    def registers(self, slave_id, address, count=1):
        return [int(word, 16) for word in self.command(f"get {slave_id} {address} {count}")[-1].split()]

    def _read(self):
        for line in self.process.stdout:
            text = line.decode().rstrip("\n")
            words = text.split()
            if len(words) > 2 and words[1] in "<>":
                # Bytes that are not Modbus have the baud rate as a last word.
                rate = int(words.pop()[1:]) if words[-1].startswith("@") else None
                frame = bytes.fromhex("".join(words[2:]))
                if words[1] == ">":
                    self._take_frame(float(words[0]) / 1000, frame, rate)
            else:
                self._answers.put(text)

    def _take_frame(self, at, frame, rate):
        if rate is not None or frame[1:2] not in (bytes([modbus.READ]), bytes([modbus.WRITE])):
            with self._changed:
                self.foreign.append(frame)
                self.foreign_rates.append(rate)
                self._changed.notify_all()
            return
        request, used = modbus.cut_request(bytearray(frame), at)
        assert request and used == len(frame), frame.hex(" ")
        self.keep(request)


_WITH_VALUE = {"--object", "--serial", "--year", "--activation-ms", "--boot-ms"}
_WITH_VALUE |= {"--bootloader-boot-ms", "--bootloader-bps", "--seed"}
