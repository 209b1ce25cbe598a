#!/usr/bin/python3
# SPDX-License-Identifier: Apache-2.0
"""The programs on the devices: one on each, which sends batches of reports until SIGTERM.

Each report has the name of the run and a running number. At the end, the program writes its book: for each device the
number of reports, and the numbers that its daemon did not accept.

usage: devices.py RUN SECONDS BOOK SOCKET...     SECONDS: the pause after each batch
"""
import asyncio
import json
import pathlib
import random
import signal
import sys
import threading

import telvora

BATCH = 50
ATTEMPTS = 10
# A device whose bag does not come within 15 s waits for 15 minutes: a busy machine can't serve all devices at once.
STARTS = asyncio.Semaphore(4)


async def use(device: int, socket: str, run: str, pause: float, stopped: threading.Event) -> tuple[int, list[int]]:
    sent, refused = 0, []
    with telvora.Session(socket_path=socket) as session:
        info = telvora.session_info(client_type=8, session_id=device, batch=True)
        session.set_info(info, telvora.user_info("fleet"))
        async with STARTS:
            if not await has_started(session):
                raise SystemExit(f"device {device} does not report")
        while not stopped.is_set():
            answers = [session.send(5, 6, report(run, device, sent + i)) for i in range(BATCH)]
            # Fails if no server takes the batch, which the daemon keeps then. Answers come in the order of the calls.
            await asyncio.gather(asyncio.wrap_future(session.flush()), return_exceptions=True)
            refused += [sent + i for i, answer in enumerate(answers) if answer.exception(0) is not None]
            sent += BATCH
            await asyncio.sleep(pause * random.uniform(0.5, 1.5))
    return sent, refused


async def has_started(session: telvora.Session) -> bool:
    for _ in range(ATTEMPTS):
        try:
            backends = await asyncio.wrap_future(session.start())
            return bool(backends)
        except telvora.TelvoraError as error:  # the library connects again, and gives the info again
            print(error, file=sys.stderr)
            await asyncio.sleep(1)
    return False


def report(run: str, device: int, number: int) -> dict[str, telvora.Value]:
    seconds = round(random.expovariate(0.1), 3)
    screen = random.choice(("home", "search", "player", "settings"))
    user = f"user{device}@example.org"  # which the bag's filter removes
    return {"run": run, "device": device, "number": number, "screen": screen, "seconds": seconds, "user": user}


async def main(run: str, pause: float, book: str, sockets: list[str]) -> None:
    stopped = threading.Event()
    signal.signal(signal.SIGTERM, lambda *_: stopped.set())
    results = await asyncio.gather(*(use(i, socket, run, pause, stopped) for i, socket in enumerate(sockets)))
    pathlib.Path(book).write_text(json.dumps({"run": run, "devices": results}))


if __name__ == "__main__":
    asyncio.run(main(sys.argv[1], float(sys.argv[2]), sys.argv[3], sys.argv[4:]))
