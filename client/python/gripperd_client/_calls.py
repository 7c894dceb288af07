"""The logic of all calls, once for the blocking and the asyncio classes."""

import math
import time
from typing import Callable, Dict, List, Mapping, Optional, Sequence, Set, Tuple, TypeVar

from ._arguments import (
    SCANNED_IDS,
    checked_id,
    checked_ids,
    checked_number,
    checked_pairs,
    checked_rate,
    needs_gripper,
    refuse,
)
from ._connection import Connection, Endpoint, NewTransport
from ._errors import (
    ConnectionLost,
    GripperError,
    GripperMissing,
    InvalidValue,
    NotActive,
    ProtocolError,
    Refused,
    TimedOut,
)
from ._model import (
    IMAGE_REQUEST,
    LINE_REQUEST,
    Image,
    LineImage,
    LineState,
    MoveResult,
    Outage,
    OutageReason,
    ReadingTime,
    Status,
    UpgradeStage,
    WatchItem,
    decode_image,
    decode_line,
)
from ._protocol import ReplyReader, Request, decode_ids, set_request
from ._steps import Call, Deadline, Sleep
from ._waits import (
    LiveWait,
    MoveWait,
    ReleaseWait,
    StatusWait,
    StopWait,
    Wait,
    check_ready,
    status_text,
)

_LOOK_INTERVAL = 0.01
_RUNNING_INTERVAL = 0.1
_FLASHER_LOOK_INTERVAL = 0.1
# A gripper on a disturbed line is missing for a shorter time.
_MAX_ABSENCE = 3.0
# A visit that has begun ends within 40 ms if the link runs. Otherwise an access may take longer.
_SILENCE_OF_RUNNING_LINE = 0.3
_SILENCE_OF_DISTURBED_LINE = 2.0
_MAX_SCANS = 3
_PAUSE_BETWEEN_SCANS = 1.0
# When polling continues, its first read finds the port closed, and the state of the link changes. This
# takes one tick of 50 ms and the run time of fuser.
_UNCHANGED_TIME = 1.5
# A flasher that writes firmware runs for several seconds.
_TOO_SHORT_TO_WRITE = 1.0

Pairs = Sequence[Tuple[str, int]]
Progress = Callable[[UpgradeStage], None]
CommunicationError = (ConnectionLost, TimedOut, ProtocolError)
T = TypeVar("T")


def _now() -> ReadingTime:
    return ReadingTime(time.monotonic(), time.time())


def _pause(seconds: float, deadline: Deadline, what: str) -> Call[None]:
    """Sleeps, but raises TimedOut at the deadline."""
    yield Sleep(min(time.monotonic() + seconds, deadline.at))
    if deadline.is_over():
        raise TimedOut(f"{what}: {deadline.timeout:g} s are over")


# Parts that several calls use


def read_image(
    connection: Connection, id: int, deadline: Deadline, may_reconnect: bool = True
) -> Call[Image]:
    reader = yield from connection.exchange(IMAGE_REQUEST, deadline, may_reconnect)
    return _decoded(connection, lambda: decode_image(id, reader.values, _now()))


def read_line(connection: Connection, deadline: Deadline) -> Call[LineImage]:
    reader = yield from connection.exchange(LINE_REQUEST, deadline)
    return _decoded(connection, lambda: decode_line(reader.values, _now()))


def read_ids(connection: Connection, deadline: Deadline) -> Call[Tuple[int, ...]]:
    text = yield from connection.get("SID", deadline)
    return _decoded(connection, lambda: decode_ids("SID", text))


def _decoded(connection: Connection, decode: Callable[[], T]) -> T:
    try:
        return decode()
    except ProtocolError:
        connection.close()
        raise


def _refuse_during_upgrade(connection: Connection, deadline: Deadline) -> Call[None]:
    if (yield from connection.get("UPG", deadline)) != "0":
        raise Refused("a firmware upgrade is under way and has the line: try again when it has ended")


def _scan(connection: Connection, deadline: Deadline) -> Call[Tuple[int, ...]]:
    yield from connection.set([("SCN_BLOCK", 1)], deadline)
    return (yield from read_ids(connection, deadline))


def _scan_until(
    connection: Connection, is_enough: Callable[[Sequence[int]], bool], deadline: Deadline
) -> Call[Sequence[int]]:
    """Scans until it has found enough, at most three times: a scan on a disturbed line may miss a gripper.

    Returns the ids that the last scan found.
    """
    found: Sequence[int] = ()
    for number in range(_MAX_SCANS):
        if number > 0:
            yield from _pause(_PAUSE_BETWEEN_SCANS, deadline, "the scans did not end")
        found = yield from _scan(connection, deadline)
        if is_enough(found):
            break
    return found


def _scan_for(connection: Connection, ids: Sequence[int], deadline: Deadline) -> Call[List[int]]:
    """Scans until it has found all ids. Returns the missing ones."""
    found = yield from _scan_until(connection, lambda found: set(ids) <= set(found), deadline)
    return [id for id in ids if id not in found]


class Muting:
    """Muted polling. It has a connection of its own."""

    def __init__(self, endpoint: Endpoint, new_transport: NewTransport, timeout: float) -> None:
        self._connection = Connection(endpoint, new_transport)
        self._timeout = timeout

    def begin(self, deadline: Deadline) -> Call[None]:
        """Mutes polling and waits until the line is silent. Unmutes if this fails."""
        try:
            yield from self._connection.set([("MUTE", 1)], deadline)
            link = yield from self._connection.get("DRI", deadline)
            silence = _SILENCE_OF_RUNNING_LINE if link == "RUNNING" else _SILENCE_OF_DISTURBED_LINE
            yield from _pause(silence, deadline, "the line did not become silent")
        except BaseException:
            # Without a reply, the daemon may have muted polling, or may do so later.
            yield from self.end()
            raise

    def end(self) -> Call[None]:
        """Unmutes, on a new connection if the old one is lost. Each has a deadline of its own.

        While a flasher has the line, the daemon unmutes at its end.
        """
        try:
            yield from self._unmute()
        except CommunicationError:
            # The old connection may have died silently, which takes all of its time.
            yield from self._unmute()
        self._connection.close()

    def _unmute(self) -> Call[None]:
        deadline = Deadline.after(self._timeout)
        if (yield from self._connection.get("UPG", deadline)) != "1":
            yield from self._connection.set([("MUTE", 0)], deadline)


class LineCalls:
    def __init__(
        self, endpoint: Endpoint, new_transport: NewTransport, default_timeout: float
    ) -> None:
        self.endpoint = endpoint
        self.connection = Connection(endpoint, new_transport)
        self.default_timeout = Deadline.after(default_timeout).timeout
        self._new_transport = new_transport

    def _deadline(self, timeout: Optional[float]) -> Deadline:
        return Deadline.after(self.default_timeout if timeout is None else timeout)

    def grippers(self, timeout: Optional[float]) -> Call[Tuple[int, ...]]:
        return (yield from read_ids(self.connection, self._deadline(timeout)))

    def state(self, timeout: Optional[float]) -> Call[LineState]:
        return (yield from read_line(self.connection, self._deadline(timeout))).state()

    def image(self, timeout: Optional[float]) -> Call[LineImage]:
        return (yield from read_line(self.connection, self._deadline(timeout)))

    def scan(self, timeout: float) -> Call[Tuple[int, ...]]:
        deadline = Deadline.after(timeout)
        yield from _refuse_during_upgrade(self.connection, deadline)
        return (yield from _scan(self.connection, deadline))

    def wait_until_running(self, ids: Sequence[int], timeout: float) -> Call[None]:
        deadline = Deadline.after(timeout)
        wanted = set(checked_ids(ids))
        state = ""
        while not deadline.is_over():
            try:
                image = yield from read_line(self.connection, deadline)
            except ProtocolError:
                raise  # Another server has the port.
            except CommunicationError as error:
                state = str(error)
            else:
                listed = image.ids or ()
                if image.state().running and listed and wanted <= set(listed):
                    return
                state = f"the link is {image.link}, listed: {list(listed)}"
            yield Sleep(min(time.monotonic() + _RUNNING_INTERVAL, deadline.at))
        raise TimedOut(f"the line does not run as wanted after {deadline.timeout:g} s: {state}")

    def muting(self) -> Muting:
        return Muting(self.endpoint, self._new_transport, self.default_timeout)

    def begin_maintenance(self, muting: Muting) -> Call[None]:
        yield from muting.begin(self._deadline(None))

    def rename(self, old: int, new: int, timeout: float) -> Call[None]:
        checked_id(old)
        # 2.0 equals 2, but the daemon would not read it as an id.
        if checked_id(new) not in SCANNED_IDS:
            raise InvalidValue(f"no scan looks for id {new!r}: use one of {SCANNED_IDS}")
        if old == new:
            raise InvalidValue("the old and the new id are the same")
        deadline = Deadline.after(timeout)
        yield from _refuse_during_upgrade(self.connection, deadline)
        listed = yield from read_ids(self.connection, deadline)
        self._refuse_in_use(new, listed)
        serial = yield from self._rename_on_silent_line(old, new, old in listed, deadline)
        # The daemon acknowledges every NID. Only the gripper at the new id shows the success.
        if (yield from self._serial_at(new, deadline)) == serial:
            return
        found = yield from _scan_until(
            self.connection, lambda found: old in found or new in found, deadline
        )
        if new in found and (yield from self._serial_at(new, deadline)) == serial:
            return
        if old in found:
            raise Refused(
                f"gripper {old} kept its id. Switch it off and on, then scan: it may have stored "
                f"{new}. If not, try again; the cause is in the daemon's log"
            )
        raise GripperMissing(
            old,
            f"the gripper answers neither as {old} nor as {new}: switch it off and on, then scan",
        )

    def _serial_at(self, id: int, deadline: Deadline) -> Call[Optional[str]]:
        """Returns the serial number of a gripper, or None if the daemon does not list it."""
        connection = self._connection_to(id)
        try:
            if (yield from connection.open(deadline)):
                return (yield from connection.get("SNU", deadline))
            return None
        finally:
            connection.close()

    def _rename_on_silent_line(
        self, old: int, new: int, is_listed: bool, deadline: Deadline
    ) -> Call[str]:
        muting = self.muting()
        yield from muting.begin(deadline)
        renamed = self._connection_to(old)
        try:
            # A gripper that was plugged in after the last scan is not listed, but uses its id.
            found = yield from _scan_until(
                self.connection, lambda found: old in found or not is_listed, deadline
            )
            if old not in found:
                raise GripperMissing(old)
            self._refuse_in_use(new, found)
            serial = yield from renamed.get("SNU", deadline)
            yield from renamed.set([("NID", new)], deadline)
        finally:
            renamed.close()
            yield from muting.end()
        return serial

    def _connection_to(self, id: int) -> Connection:
        return Connection(self.endpoint, self._new_transport, id)

    def _refuse_in_use(self, id: int, found: Sequence[int]) -> None:
        if id in found:
            raise Refused(
                f"id {id} is in use, and two grippers with one id disturb each other: "
                f"rename gripper {id} first"
            )


class GripperCalls:
    def __init__(
        self, endpoint: Endpoint, id: int, new_transport: NewTransport, default_timeout: float
    ) -> None:
        self.id = checked_id(id)
        self.endpoint = endpoint
        self.connection = Connection(endpoint, new_transport, id)
        self.default_timeout = default_timeout
        self._new_transport = new_transport

    def _deadline(self, timeout: Optional[float]) -> Deadline:
        return Deadline.after(self.default_timeout if timeout is None else timeout)

    def open_connection(self, timeout: Optional[float]) -> Call[None]:
        if not (yield from self.connection.open(self._deadline(timeout))):
            self.connection.close()
            raise GripperMissing(self.id)

    def image(self, timeout: Optional[float]) -> Call[Image]:
        return (yield from read_image(self.connection, self.id, self._deadline(timeout)))

    def activate(self, again: bool, timeout: float) -> Call[None]:
        deadline = Deadline.after(timeout)
        before = yield from self._live(deadline)
        if before.status == Status.ACTIVE and not before.fault and not again:
            return
        if before.status != Status.INACTIVE:
            yield from self._command([("ACT", 0), ("GTO", 0)], deadline, StatusWait(Status.INACTIVE))
        after = yield from self._command(
            [("GTO", 0), ("ACT", 1)], deadline, StatusWait(Status.ACTIVE)
        )
        check_ready(after)

    def deactivate(self, timeout: float) -> Call[None]:
        deadline = Deadline.after(timeout)
        yield from self._listed(deadline)
        yield from self._command([("ACT", 0), ("GTO", 0)], deadline, StatusWait(Status.INACTIVE))

    def move(self, position: int, speed: int, force: int, timeout: float) -> Call[MoveResult]:
        checked_number("a position", position)
        checked_number("a speed", speed)
        checked_number("a force", force)
        deadline = Deadline.after(timeout)
        before = yield from self._live(deadline)
        check_ready(before)
        pairs = [("POS", position), ("SPE", speed), ("FOR", force), ("GTO", 1)]
        return (yield from self._command(pairs, deadline, MoveWait(before, position)))

    def stop(self, timeout: Optional[float]) -> Call[None]:
        # It does not read first: a stop is urgent.
        yield from self._command(
            [("GTO", 0)], self._deadline(timeout), StopWait(), may_reconnect=True
        )

    def release(self, closing: bool, timeout: float) -> Call[None]:
        deadline = Deadline.after(timeout)
        before = yield from self._live(deadline)
        if before.status == Status.INACTIVE:
            raise NotActive(
                Status.INACTIVE, f"gripper {self.id} is {status_text(before)} and cannot release"
            )
        yield from self._command([("ARD", int(bool(closing))), ("ATR", 1)], deadline, ReleaseWait())

    def led(self, red: bool, green: bool, blue: bool, timeout: Optional[float]) -> Call[None]:
        colours = [("LRD", int(bool(red))), ("LGN", int(bool(green))), ("LBL", int(bool(blue)))]
        yield from self._set_listed([("LBP", 1), *colours], self._deadline(timeout))

    def led_auto(self, timeout: Optional[float]) -> Call[None]:
        pairs = [("LBP", 0), ("LRD", 0), ("LGN", 0), ("LBL", 0)]
        yield from self._set_listed(pairs, self._deadline(timeout))

    def set(self, pairs: Mapping[str, int], timeout: Optional[float]) -> Call[None]:
        checked = checked_pairs(pairs)
        deadline = self._deadline(timeout)
        if needs_gripper(checked):
            yield from self._set_listed(checked, deadline)
        else:
            yield from self._send_set(set_request(checked), deadline, may_reconnect=True)

    def get(self, name: str, timeout: Optional[float]) -> Call[str]:
        return (yield from self.connection.get(name, self._deadline(timeout)))

    # Upgrade

    def upgrade(
        self, progress: Optional[Progress], expected: Optional[str], timeout: float
    ) -> Call[str]:
        if progress is not None and not callable(progress):
            refuse("the progress is a function", progress)
        if expected is not None and not isinstance(expected, str):
            refuse("the expected version is a text", expected)

        def report(stage: UpgradeStage) -> None:
            if progress is not None:
                progress(stage)

        deadline = Deadline.after(timeout)
        before = (yield from self._listed(deadline)).firmware
        yield from _refuse_during_upgrade(self.connection, deadline)
        has_written = (yield from self._flash(report, deadline)) >= _TOO_SHORT_TO_WRITE
        report(UpgradeStage.SEARCHING)
        if (yield from _scan_for(self.connection, [self.id], deadline)):
            raise self._unfound(has_written)
        after = (yield from self._listed(deadline)).firmware or ""
        if after != expected if expected else after == before:
            raise Refused(
                f"gripper {self.id} runs firmware {after}, before the upgrade {before}: see the "
                "messages of the flasher in the daemon's log"
            )
        report(UpgradeStage.DONE)
        return after

    def _unfound(self, has_written: bool) -> GripperMissing:
        if has_written:
            return GripperMissing(
                self.id,
                f"gripper {self.id} does not answer after the upgrade: its firmware may be "
                "incomplete. Switch it off and on, and flash it by hand",
            )
        return GripperMissing(
            self.id,
            "the flasher ended at once, most likely before it wrote anything, and gripper "
            f"{self.id} waits in its bootloader: switch it off and on, then scan",
        )

    def _flash(self, report: Progress, deadline: Deadline) -> Call[float]:
        """Returns when the flasher has ended and polling is unmuted.

        The result is the time for which the flasher ran, 0 if it ended unseen.
        """
        writing = 0.0
        muting = Muting(self.endpoint, self._new_transport, self.default_timeout)
        yield from muting.begin(deadline)
        problem = ""
        try:
            yield from self._refuse_beside_bootloader(deadline)
            before = yield from self._link(deadline)
            report(UpgradeStage.JUMPING)
            if not (yield from self.connection.set([("UPG", 1)], deadline)):
                # The daemon also refuses during the upgrade of another client.
                yield from _refuse_during_upgrade(self.connection, deadline)
                problem = "the gripper was not found in its bootloader"
            elif (yield from self._is_flashing(deadline)):
                report(UpgradeStage.WRITING)
                began = time.monotonic()
                while (yield from self._is_flashing(deadline)):
                    yield from _pause(_FLASHER_LOOK_INTERVAL, deadline, "the flasher still runs")
                writing = time.monotonic() - began
            elif (yield from self._stays_unchanged(before, deadline)):
                problem = "the flasher did not start, so nothing was written"
        finally:
            yield from muting.end()
        if problem:
            raise Refused(f"{problem}. {(yield from self._present_state(deadline))}")
        return writing

    def _is_flashing(self, deadline: Deadline) -> Call[bool]:
        return (yield from self.connection.get("UPG", deadline)) == "1"

    def _link(self, deadline: Deadline) -> Call[Tuple[Optional[str], Optional[Tuple[int, ...]]]]:
        image = yield from read_line(self.connection, deadline)
        return image.link, image.ids

    def _stays_unchanged(self, before: object, deadline: Deadline) -> Call[bool]:
        until = time.monotonic() + _UNCHANGED_TIME
        while time.monotonic() < until:
            if (yield from self._link(deadline)) != before:
                return False
            yield from _pause(_LOOK_INTERVAL, deadline, "the upgrade did not begin")
        return True

    def _refuse_beside_bootloader(self, deadline: Deadline) -> Call[None]:
        """Another gripper in its bootloader would take the firmware. It is listed until a scan."""
        listed = yield from read_ids(self.connection, deadline)
        if listed == (self.id,):
            return
        missing = yield from _scan_for(self.connection, listed, deadline)
        if missing:
            raise Refused(
                f"nothing was written, because gripper {missing[0]} does not answer: if it is in its "
                f"bootloader, it would take the firmware of gripper {self.id}. Switch it off and on, "
                "or unplug it"
            )

    def _present_state(self, deadline: Deadline) -> Call[str]:
        """The state of the gripper, for the message of a failed upgrade."""
        try:
            if (yield from _scan_for(self.connection, [self.id], deadline)):
                return (
                    f"Polling continues, but gripper {self.id} does not answer: switch it off and "
                    "on, then scan"
                )
            version = yield from self.connection.get("FWV", deadline)
        except GripperError as error:
            # The message must still name the problem of the upgrade.
            return f"The state of the gripper is unknown: {error}"
        return f"Polling continues, and gripper {self.id} runs firmware {version}"

    # Parts

    def _listed(self, deadline: Deadline) -> Call[Image]:
        image = yield from read_image(self.connection, self.id, deadline)
        if not image.present:
            raise GripperMissing(self.id)
        return image

    def _live(self, deadline: Deadline) -> Call[Image]:
        image = yield from self._listed(deadline)
        if image.stale:
            image = yield from self._wait(LiveWait(), deadline)
        return image

    def _set_listed(self, pairs: Pairs, deadline: Deadline) -> Call[None]:
        yield from self._listed(deadline)
        yield from self._send_set(set_request(pairs), deadline)

    def _send_set(
        self, request: Request, deadline: Deadline, may_reconnect: bool = False
    ) -> Call[None]:
        reader: ReplyReader = yield from self.connection.exchange(request, deadline, may_reconnect)
        if not reader.is_acknowledged:
            raise Refused(f'the daemon refused "{request.text}"')

    def _command(
        self, pairs: Pairs, deadline: Deadline, wait: Wait[T], may_reconnect: bool = False
    ) -> Call[T]:
        """Sends one SET and waits for its effect."""
        request = set_request(pairs)
        yield from self._send_set(request, deadline, may_reconnect)
        wait.on_acknowledged(time.monotonic())
        try:
            return (yield from self._wait(wait, deadline))
        except ConnectionLost as error:
            # The daemon has acknowledged it, but may have died before it wrote it.
            error.unknown = request.text
            raise
        except TimedOut:
            self.connection.close()
            raise

    def _wait(self, wait: Wait[T], deadline: Deadline) -> Call[T]:
        seen_at = time.monotonic() if wait.was_listed else -math.inf
        while True:
            # A new connection could be one to a new daemon, which does not know the request.
            image = yield from read_image(self.connection, self.id, deadline, may_reconnect=False)
            if image.present:
                seen_at = image.time.monotonic
            if not image.stale:
                result = wait.judge(image)
                if result is not None:
                    return result
            else:
                wait.on_stale(image)
                if image.time.monotonic - seen_at > _MAX_ABSENCE:
                    raise GripperMissing(self.id)
            late = (
                f"gripper {self.id} did not {wait.goal} (link {image.line.text}, "
                f"{status_text(image)}, position {image.position}, fault {image.fault}). If its "
                "values never change, polling may be muted"
            )
            yield from _pause(_LOOK_INTERVAL, deadline, late)


class WatchCalls:
    def __init__(
        self,
        endpoint: Endpoint,
        ids: Sequence[int],
        rate: float,
        new_transport: NewTransport,
        timeout: float,
    ) -> None:
        self._endpoint = endpoint
        self._new_transport = new_transport
        self._timeout = timeout
        self._period = 1 / checked_rate(rate)
        checked = checked_ids(ids)
        self._watches_all = not checked
        self._line = Connection(endpoint, new_transport)
        self._connections: Dict[int, Connection] = {}
        for id in checked:
            self._add(id)
        self._turns: List[int] = []
        self._next_at: Optional[float] = None
        self._outages: Dict[int, Outage] = {}

    def close(self) -> None:
        for connection in (self._line, *self._connections.values()):
            connection.close()

    def is_period_over(self) -> bool:
        return not self._turns

    def next(self) -> Call[WatchItem]:
        """Waits for the next turn and reads the gripper whose turn it is."""
        if not self._turns:
            yield from self._wait_for_period()
            self._turns = sorted(self._connections)
        if not self._turns:
            item = yield from self._look_for_grippers()
            if item is not None:
                return item
        return (yield from self._read(self._turns.pop(0)))

    def _wait_for_period(self) -> Call[None]:
        # After a slow period the next one begins at once. Later periods do not catch up.
        now = time.monotonic()
        self._next_at = now if self._next_at is None else max(self._next_at + self._period, now)
        if self._next_at > now:
            yield Sleep(self._next_at)

    def _look_for_grippers(self) -> Call[Optional[WatchItem]]:
        deadline = Deadline.after(self._timeout)
        try:
            image = yield from read_line(self._line, deadline)
        except CommunicationError as error:
            return self._outage(0, OutageReason.NO_CONNECTION, str(error))
        if not image.ids:
            return self._outage(0, OutageReason.LINK_DOWN, image.link or "")
        self._outages.pop(0, None)
        self._line.close()
        self._turns = self._add_listed(image.ids)
        return None

    def _read(self, id: int) -> Call[WatchItem]:
        deadline = Deadline.after(self._timeout)
        try:
            image = yield from read_image(self._connections[id], id, deadline)
        except CommunicationError as error:
            return self._outage(id, OutageReason.NO_CONNECTION, str(error))
        self._add_listed(image.listed)
        if not image.line.running:
            return self._outage(id, OutageReason.LINK_DOWN, image.line.text)
        if not image.present:
            return self._outage(id, OutageReason.MISSING, f"the daemon does not list gripper {id}")
        self._outages.pop(id, None)
        return image

    def _outage(self, id: int, reason: OutageReason, text: str) -> Outage:
        now = _now()
        before = self._outages.get(id)
        is_same = before is not None and before.reason == reason
        since = before.since if before is not None and is_same else now
        self._outages[id] = Outage(reason, id, text, now, since)
        return self._outages[id]

    def _add(self, id: int) -> None:
        self._connections[id] = Connection(self._endpoint, self._new_transport, id)

    def _add_listed(self, listed: Sequence[int]) -> List[int]:
        """Returns the new ids."""
        if not self._watches_all:
            return []
        new: Set[int] = set(listed) - set(self._connections)
        for id in new:
            self._add(id)
        return sorted(new)
