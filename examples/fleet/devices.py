#!/usr/bin/python3
# SPDX-License-Identifier: Apache-2.0
"""The programs on the devices: one on each, which sends batches of reports until SIGTERM.

Each report has a running number. At the end, standard output gets a line of JSON: for each device the number of
reports, and the numbers that its daemon did not accept.

usage: devices.py RUN SECONDS SOCKET...     RUN: a name for the run; SECONDS: the pause after each batch
"""
import asyncio
import json
import random
import signal
import sys

import telvora

BATCH = 50


async def use(device: int, socket: str, run: str, pause: float, stopped: asyncio.Event) -> tuple[int, list[int]]:
    sent, refused = 0, []
    with telvora.Session(socket_path=socket) as session:
        info = telvora.session_info(client_type=8, session_id=device, batch=True)
        session.set_info(info, telvora.user_info("fleet"))
        if not await asyncio.wrap_future(session.start()):
            raise SystemExit(f"device {device} does not report")
        while not stopped.is_set():
            answers = [asyncio.wrap_future(session.send(5, 6, report(run, device, sent + i))) for i in range(BATCH)]
            results = await asyncio.gather(*answers, return_exceptions=True)
            refused += [sent + i for i, result in enumerate(results) if isinstance(result, Exception)]
            sent += BATCH
            # Fails if the server refuses the batch, which the daemon keeps then.
            await asyncio.gather(asyncio.wrap_future(session.flush()), return_exceptions=True)
            await asyncio.sleep(pause * random.uniform(0.5, 1.5))
    return sent, refused


def report(run: str, device: int, number: int) -> dict[str, telvora.Value]:
    seconds = round(random.expovariate(0.1), 3)
    screen = random.choice(("home", "search", "player", "settings"))
    user = f"user{device}@example.org"  # which the bag's filter removes
    return {"run": run, "device": device, "number": number, "screen": screen, "seconds": seconds, "user": user}


async def main(run: str, pause: float, sockets: list[str]) -> None:
    stopped = asyncio.Event()
    asyncio.get_running_loop().add_signal_handler(signal.SIGTERM, stopped.set)
    results = await asyncio.gather(*(use(i, socket, run, pause, stopped) for i, socket in enumerate(sockets)))
    print(json.dumps({"run": run, "devices": results}))


if __name__ == "__main__":
    asyncio.run(main(sys.argv[1], float(sys.argv[2]), sys.argv[3:]))
