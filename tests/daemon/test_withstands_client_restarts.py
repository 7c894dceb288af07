"""The C++ client library withstands a daemon that is killed during movements."""

import random
import time

from harness.clientcheck import ClientCheck
from harness.effort import effort
from harness.simulator import Simulator

MOVES = effort(20, 500)
SPEED = 255


def speeds_written(requests):
    return [request.values[2] >> 8 for request in requests if request.is_write(1000)]


def test_no_set_is_repeated_and_the_next_call_works(start_daemon, figure):
    chance = random.Random(MOVES)
    results = {}
    with Simulator("9=TA3-1.6.14", "--activation-ms=200") as line, ClientCheck() as check:
        daemon = start_daemon()
        check.call("wait-until-running 30 9")
        check.call("gripper 9")
        check.call("activate")
        for _ in range(MOVES):
            position = chance.randrange(256)
            check.begin(f"move {position} {SPEED} 100")
            time.sleep(chance.uniform(0, 0.3))
            daemon.kill()
            mark = line.mark()
            daemon = start_daemon()
            result = check.end()[-1]
            unknown = f" unknown: SET POS {position} SPE {SPEED} FOR 100 GTO 1"
            if result.startswith("error"):
                assert result.startswith("error ConnectionLost: "), result
                assert result.endswith((unknown, " unknown: ")), result
            kind = "unknown" if result.endswith(unknown) else " ".join(result.split()[:2])
            results[kind] = results.get(kind, 0) + 1
            check.call("wait-until-running 30 9")
            # A new daemon sets the speed to 0. Only a repeated SET would change it.
            assert check.image()["SPE"] == "0"
            line.wait_for(lambda r: r.is_write(1000), since=mark)
            assert set(speeds_written(line.since(mark))) == {0}
    assert results["unknown"] > MOVES / 4, results
    figure(f"{MOVES} moves, 0 SETs repeated: {results}")
