"""The blocking classes."""

from types import TracebackType
from typing import Callable, Mapping, Optional, Sequence, Tuple, Type

from . import _defaults as default
from ._blocking import BlockingTransport, run
from ._calls import GripperCalls, LineCalls, WatchCalls
from ._connection import Endpoint, endpoint_text
from ._model import Image, LineImage, LineState, MoveResult, UpgradeStage, WatchItem
from ._protocol import endpoint


class Watch:
    """Reads grippers periodically, with one packet and one connection for each.

    An endless iterator: it gives an item for each gripper and period, an `Image`, or an `Outage` as long
    as that lasts. An outage is an item, never an exception. The watch connects again by itself and never
    commands a gripper. It keeps no backlog: after a slow consumer, the next item is new.
    """

    def __init__(self, calls: WatchCalls) -> None:
        self._calls = calls

    def __iter__(self) -> "Watch":
        return self

    def __next__(self) -> WatchItem:
        """Waits at most one period, and the timeout of the line for a daemon that does not answer."""
        return run(self._calls.next())

    def is_period_over(self) -> bool:
        """Returns whether all items of the present period were given. The next one then waits."""
        return self._calls.is_period_over()

    def close(self) -> None:
        """Ends the connections. The next item opens new ones."""
        self._calls.close()

    def __enter__(self) -> "Watch":
        return self

    def __exit__(self, *_: object) -> None:
        self.close()


class Maintenance:
    """Mutes polling in a ``with`` block, for all clients.

    In the block the values of the grippers do not change, and the daemon writes nothing to them. The
    block begins when the line is silent, after about 0.3 s. Its end unmutes in every case, on a new
    connection if its own is lost. While a flasher has the line, the daemon unmutes at its end instead.

    Raises:
        ConnectionLost, TimedOut, ProtocolError: from the end of the block, polling may still be muted.
    """

    def __init__(self, calls: LineCalls) -> None:
        self._calls = calls
        self._muting = calls.muting()

    def __enter__(self) -> None:
        run(self._calls.begin_maintenance(self._muting))

    def __exit__(
        self,
        kind: Optional[Type[BaseException]],
        error: Optional[BaseException],
        traceback: Optional[TracebackType],
    ) -> None:
        run(self._muting.end())


class Line:
    """The serial line with its grippers, as the daemon shows it.

    It connects with the first call. Every call blocks, and ends at the latest 50 ms after its timeout;
    without one, after the timeout of the line. The system's resolver looks up host names and does not
    know this limit; addresses need no look-up. A call that mutes polling may need the timeout of the
    line twice more to unmute after a failure. Several threads may use one object: their requests take
    turns.

    Every call may raise ConnectionLost, TimedOut and ProtocolError. It raises InvalidValue for an argument of
    a wrong type or out of its range, also if the type checker does not see it. Nothing is sent then, and the
    connection stays as it is.

    Example:
        ::

            with Line("127.0.0.1") as line, line.gripper(9) as gripper:
                gripper.activate()
                held = gripper.close().stalled

    Args:
        host: a name or an address. ``::1``, ``[::1]:63352`` and ``fe80::2%eth0`` work, too.
        port: the port, unless `host` contains one.
        timeout: the seconds of a call that gives no timeout and needs no movement of a gripper.
    """

    def __init__(
        self, host: str = "127.0.0.1", port: int = default.DEFAULT_PORT, timeout: float = default.DEFAULT_TIMEOUT
    ) -> None:
        self._calls = LineCalls(endpoint(host, port), BlockingTransport, timeout)

    @property
    def endpoint(self) -> str:
        """The address, such as ``127.0.0.1:63352`` or ``[::1]:63352``."""
        return endpoint_text(self._calls.endpoint)

    def grippers(self, timeout: Optional[float] = None) -> Tuple[int, ...]:
        """Returns the ids of the grippers that the daemon has found, in ascending order."""
        return run(self._calls.grippers(timeout))

    def state(self, timeout: Optional[float] = None) -> LineState:
        """Returns the state of the link between the daemon and the grippers."""
        return run(self._calls.state(timeout))

    def image(self, timeout: Optional[float] = None) -> LineImage:
        """Returns all values of the line, from one packet."""
        return run(self._calls.image(timeout))

    def scan(self, timeout: float = default.SCAN_TIMEOUT) -> Tuple[int, ...]:
        """Makes the daemon look for grippers, and returns the ids that it found.

        Takes about 1.2 s. **A scan sets speed, force, mode and LEDs of all grippers to 0.**

        Raises:
            Refused: a firmware upgrade is under way.
        """
        return run(self._calls.scan(timeout))

    def wait_until_running(
        self, ids: Sequence[int] = (), timeout: float = default.RUNNING_TIMEOUT
    ) -> None:
        """Waits until the link runs and the daemon lists all `ids`, or at least one gripper.

        Connects again and again: the daemon need not run yet. It does not scan: while one gripper
        answers, the daemon does not look for others.

        Raises:
            TimedOut: the line does not run in time. The message has the last state.
            ProtocolError: another server answers.
        """
        return run(self._calls.wait_until_running(ids, timeout))

    def gripper(self, id: int, timeout: Optional[float] = None) -> "Gripper":
        """Returns a gripper, with a connection of its own.

        Raises:
            GripperMissing: the daemon does not list the gripper.
        """
        calls = GripperCalls(
            self._calls.endpoint, id, BlockingTransport, self._calls.default_timeout
        )
        run(calls.open_connection(timeout))
        return Gripper(calls)

    def watch(self, ids: Sequence[int] = (), rate: float = 20) -> Watch:
        """Watches `ids`, or all grippers that the daemon lists.

        Args:
            ids: the grippers. Without ids, a gripper that was listed once is watched until the end.
            rate: periods per second, from one period a day to 1000 a second.
        """
        return _watch(self._calls.endpoint, ids, rate, self._calls.default_timeout)

    def maintenance(self) -> Maintenance:
        """Mutes polling in a ``with`` block. See `Maintenance`."""
        return Maintenance(self._calls)

    def rename(self, old: int, new: int, timeout: float = default.RENAME_TIMEOUT) -> None:
        """Gives gripper `old` the id `new`, which takes about 10 s with its scans.

        If the call ends by a time-out, the daemon continues.

        Raises:
            InvalidValue: `new` is not 9, 2, 3 or 4, or is `old`.
            GripperMissing: there is no gripper `old`, or it answers at neither id afterwards.
            Refused: `new` is in use, an upgrade is under way, or the gripper kept its id.
        """
        return run(self._calls.rename(old, new, timeout))

    def close(self) -> None:
        """Ends the connection. The next call opens a new one."""
        self._calls.connection.close()

    def __enter__(self) -> "Line":
        return self

    def __exit__(self, *_: object) -> None:
        self.close()


class Gripper:
    """One gripper, on a connection of its own. `Line.gripper` makes it.

    Every call blocks, and ends at the latest 50 ms after its timeout. Several threads may use one
    object: their requests take turns, so one thread can call `stop` during another's `move`.

    Every call may raise ConnectionLost, TimedOut and ProtocolError, and InvalidValue for an argument, as the
    calls of `Line` do.

    Commands never repeat a SET, and nothing moves when the connection is opened again. A command reads the
    gripper before it sends, except `stop`. It sends nothing and raises GripperMissing if the daemon does not
    list the gripper. It also raises GripperMissing if the gripper is missing for 3 s during the call. A line
    that is disturbed for a shorter time does no harm. While the link does not run, values are old. Commands
    then wait, except `stop`, `set` and those of the LEDs.

    When a call ends by an exception, the gripper continues what it does.
    """

    def __init__(self, calls: GripperCalls) -> None:
        self._calls = calls

    @property
    def id(self) -> int:
        """The slave id."""
        return self._calls.id

    def image(self, timeout: Optional[float] = None) -> Image:
        """Returns all values, from one packet. A missing gripper is an image without values."""
        return run(self._calls.image(timeout))

    def activate(self, again: bool = False, timeout: float = default.MOVEMENT_TIMEOUT) -> None:
        """Activates the gripper, which opens its fingers or ends its vacuum: **a part falls**.

        Sends nothing if the gripper is active without a fault, unless `again` says so. Otherwise it
        deactivates the gripper first, so that the end of the activation shows without doubt, and
        switches go-to off, so that nothing moves afterwards.

        Raises:
            Fault: a fault remains.
        """
        return run(self._calls.activate(again, timeout))

    def deactivate(self, timeout: float = default.MOVEMENT_TIMEOUT) -> None:
        """Deactivates the gripper and switches go-to off. Returns when the gripper shows it."""
        return run(self._calls.deactivate(timeout))

    def move(
        self, position: int, speed: int, force: int, timeout: float = default.MOVEMENT_TIMEOUT
    ) -> MoveResult:
        """Goes to a position and waits for the end of the movement. Sends one SET.

        If the gripper shows the same position already, no variable shows when it has this request. The
        call then waits 0.1 s, and 0.2 s for each listed gripper, before it trusts the object detection.

        Args:
            position: 0 is open, 255 closed; for vacuum grippers the vacuum level.
            speed: 0 to 255 in the gripper's own unit. Speed 0 still moves.
            force: 0 to 255 in the gripper's own unit.
            timeout: seconds.

        Raises:
            NotActive, Fault: also before anything is sent.
            Interference: another client changed the request during the movement.
        """
        return run(self._calls.move(position, speed, force, timeout))

    def open(
        self,
        speed: int = default.FULL_SPEED,
        force: int = default.DEFAULT_FORCE,
        timeout: float = default.MOVEMENT_TIMEOUT,
    ) -> MoveResult:
        """Moves to 0. See `move`."""
        return run(self._calls.move(default.OPEN_POSITION, speed, force, timeout))

    def close(
        self,
        speed: int = default.FULL_SPEED,
        force: int = default.DEFAULT_FORCE,
        timeout: float = default.MOVEMENT_TIMEOUT,
    ) -> MoveResult:
        """Moves to 255. See `move`. (`disconnect` ends the connection.)"""
        return run(self._calls.move(default.CLOSED_POSITION, speed, force, timeout))

    def stop(self, timeout: Optional[float] = None) -> None:
        """Switches go-to off and waits until the gripper shows it. Sends the SET at once.

        Fingers stop where they are. A vacuum gripper loses its vacuum: **its part falls**. If go-to is off
        already, an earlier request may be on its way. The call then takes 0.1 s, and 0.2 s for each listed
        gripper.

        Raises:
            GripperMissing: also at once if the daemon does not list the gripper after the SET.
        """
        return run(self._calls.stop(timeout))

    def release(self, closing: bool = False, timeout: float = default.MOVEMENT_TIMEOUT) -> None:
        """Releases the part slowly (automatic release), to the open or the closed end.

        Returns when the gripper has not moved for 0.5 s. Then the gripper needs `activate`.

        Raises:
            NotActive: the gripper is inactive.
        """
        return run(self._calls.release(closing, timeout))

    def led(
        self, red: bool, green: bool, blue: bool, timeout: Optional[float] = None
    ) -> None:
        """The LEDs show these colours instead of the state of the gripper."""
        return run(self._calls.led(red, green, blue, timeout))

    def led_auto(self, timeout: Optional[float] = None) -> None:
        """The LEDs show the state of the gripper again."""
        return run(self._calls.led_auto(timeout))

    def set(self, pairs: Mapping[str, int], timeout: Optional[float] = None) -> None:
        """Sends one SET. Returns after ``ack``, which does not mean done.

        Reads the gripper first, unless the daemon alone has all variables, such as ``MUTE``.

        Args:
            pairs: names and values from 0 to 255, such as ``{"POS": 80, "GTO": 1}``, in their order.
            timeout: seconds. ``SCN_BLOCK``, ``BLD`` and ``UPG`` need more than the usual ones.

        Raises:
            InvalidValue: an unknown name, or ``SID`` or ``NID``.
            Refused: the reply is ``nak``.
        """
        return run(self._calls.set(pairs, timeout))

    def get(self, name: str, timeout: Optional[float] = None) -> str:
        """Returns the text of one value, or ``"?"``."""
        return run(self._calls.get(name, timeout))

    def upgrade(
        self,
        progress: Optional[Callable[[UpgradeStage], None]] = None,
        expected: Optional[str] = None,
        timeout: float = default.UPGRADE_TIMEOUT,
    ) -> str:
        """Writes the firmware image of the gripper's family, and returns the version that runs then.

        Mutes polling and unmutes it in every case. If the call ends by a time-out while the flasher
        runs, the flasher continues, and the daemon unmutes afterwards.

        Args:
            progress: called at the beginning of each stage.
            expected: the version that must run afterwards. Without one, the version must change.
            timeout: seconds.

        Raises:
            Refused: an upgrade is under way, another listed gripper does not answer (it may be in its
                bootloader and would take the firmware), the gripper does not reach its bootloader, the
                flasher does not start, or the version is not the expected one.
            GripperMissing: no scan finds the gripper afterwards.
        """
        return run(self._calls.upgrade(progress, expected, timeout))

    def watch(self, rate: float = 20) -> Watch:
        """Watches this gripper, on a connection of its own. See `Watch`."""
        return _watch(self._calls.endpoint, [self.id], rate, self._calls.default_timeout)

    def disconnect(self) -> None:
        """Ends the connection. The next call opens a new one."""
        self._calls.connection.close()

    def __enter__(self) -> "Gripper":
        return self

    def __exit__(self, *_: object) -> None:
        self.disconnect()


def _watch(endpoint: Endpoint, ids: Sequence[int], rate: float, timeout: float) -> Watch:
    return Watch(WatchCalls(endpoint, ids, rate, BlockingTransport, timeout))
