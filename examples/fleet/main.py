#!/usr/bin/python3
# SPDX-License-Identifier: Apache-2.0
"""Runs the fleet: measures, kills servers, and compares the books. Exit status 0: no report is lost or doubled.

usage: main.py [DAEMONS]
"""
import asyncio
import pathlib
import shutil
import signal
import sys
import tempfile

from audit import audit
from fleet import Fleet
from kills import kill_servers
from measure import Costs, print_handshakes, print_sizes

RUSH_SECONDS = 20
PAUSE = 2.0  # seconds between two batches of a device while servers are killed


async def rush(fleet: Fleet) -> dict[str, object]:
    """All devices report as fast as they can: the costs of a report at each server."""
    costs = Costs(fleet, await fleet.rows())
    program = fleet.run_programs("rush", 0)
    await fleet.until_answered("204")
    await asyncio.sleep(RUSH_SECONDS)
    book = await fleet.stop_programs(program, "rush")
    await fleet.until_stored()
    costs.print(await fleet.rows())
    await print_handshakes(fleet)
    return book


async def run(fleet: Fleet, size: int) -> bool:
    await fleet.start(size)
    fleet.say("all devices report as fast as they can")
    books = [await rush(fleet)]
    fleet.say(f"each device reports every {PAUSE:.0f} s")
    program = fleet.run_programs("kills", PAUSE)
    await fleet.until_answered("204")
    await kill_servers(fleet)
    books.append(await fleet.stop_programs(program, "kills"))
    accounts = await fleet.stop_daemons()
    await fleet.until_stored()
    fleet.say("the books")
    statuses = {status: fleet.answered(status) for status in ("2", "429", "4", "5")}
    print(f"answers: {statuses['2']} of 2xx, {statuses['429']} of 429,"
          f" {statuses['4'] - statuses['429']} other 4xx, {statuses['5']} of 5xx")
    await print_sizes(fleet)
    return await audit(fleet.database, accounts, books) and statuses["5"] == 0


async def main(size: int) -> int:
    task = asyncio.current_task()
    assert task
    for number in (signal.SIGTERM, signal.SIGINT, signal.SIGHUP):
        asyncio.get_running_loop().add_signal_handler(number, task.cancel)
    directory = pathlib.Path(tempfile.mkdtemp(prefix="telvora-fleet-"))
    fleet = Fleet(directory)
    passed, is_useful = False, True
    try:
        passed = await run(fleet, size)
        is_useful = not passed
    except asyncio.CancelledError:  # by a signal
        is_useful = False
    finally:
        fleet.end()
        if is_useful:
            print("The logs are in", directory, file=sys.stderr)
        else:
            shutil.rmtree(directory)
    print("passed" if passed else "FAILED")
    return 0 if passed else 1


if __name__ == "__main__":
    sys.exit(asyncio.run(main(int(sys.argv[1]) if len(sys.argv) > 1 else 50)))
