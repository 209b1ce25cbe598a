# SPDX-License-Identifier: Apache-2.0
"""The daemons of the devices, each with directories of its own, and their ledgers."""
from __future__ import annotations

import asyncio
import collections
import json
import os
import pathlib
import plistlib
import shutil
from typing import Any

from processes import Process
from servers import Servers, make_certificate

POSTS, OUTBOX = "httpPost", "outbox"  # accounts of the ledger


class Daemon:
    def __init__(self, servers: Servers, number: int) -> None:
        self.directory = servers.directory / "devices" / str(number)
        self.socket = self.directory / "run" / "com.zandor.telvorad"
        for name in ("run", "state", "log", "etc/Preferences", "etc/entitlements.d"):
            (self.directory / name).mkdir(parents=True)
        device = f"device-{number}"
        certificates = self.directory / "etc"  # where the confined daemon can read them
        make_certificate(servers.keys, "devices", device, certificates)
        shutil.copy(servers.keys / "servers.pem", certificates)
        settings = {
            "telvora_storebag_url": f"https://localhost:{servers.port}/bags",
            "caFile": str(certificates / "servers.pem"),
            "clientCertificate": str(certificates / f"{device}.pem"),
            "clientKey": str(certificates / f"{device}.key"),
            "outboxBytes": 10_000_000,
            "keepBags": True,
            "deviceName": device,
            "messageLogBytes": 65536,
            "logLevel": 4,
        }
        entitlement = {"User": os.getuid(), "Entitlements": {"com.zandor.private.telvorad": True}}
        self._write("Preferences/com.zandor.telvora", settings)
        self._write("Preferences/com.zandor.diagnosticsharing", {"Enabled": True})
        self._write("entitlements.d/me", entitlement)
        self._write("device", {"CountryCode": "US"})
        environment: dict[str, object] = {
            "RUNTIME_DIRECTORY": self.directory / "run",
            "STATE_DIRECTORY": self.directory / "state",
            "CONFIGURATION_DIRECTORY": self.directory / "etc",
            "LOGS_DIRECTORY": self.directory / "log",
            "TELVORA_FRAMEWORK_DIR": servers.directory / "framework",
        }
        log = self.directory / "daemon.log"
        log.touch()
        file = log.stat()
        environment["JOURNAL_STREAM"] = f"{file.st_dev}:{file.st_ino}"  # keeps its lines out of the system's log
        self.process = Process(log, "telvorad", environment={name: str(value) for name, value in environment.items()})

    def _write(self, name: str, content: dict[str, Any]) -> None:
        with (self.directory / "etc" / f"{name}.plist").open("wb") as file:
            plistlib.dump(content, file)

    async def accounts(self) -> dict[str, Any]:
        """The ledger of the running daemon."""
        command = ("telvoractl", "--socket", str(self.socket), "--json", "status")
        process = await asyncio.create_subprocess_exec(*command, stdout=asyncio.subprocess.PIPE)
        output, _ = await process.communicate()
        if process.returncode != 0:
            raise ConnectionError(f"{self.socket} does not answer")
        return dict(json.loads(output)["totals"])

    def last_accounts(self) -> dict[str, Any]:
        """The ledger of the daemon that has ended."""
        with (self.directory / "state" / "lastTotals.plist").open("rb") as file:
            return dict(plistlib.load(file)["totals"])


def sum_of(accounts: list[dict[str, Any]], name: str) -> tuple[collections.Counter[str], collections.Counter[str]]:
    """One account of all ledgers: reports by outcome, and losses by cause."""
    outcomes: collections.Counter[str] = collections.Counter()
    losses: collections.Counter[str] = collections.Counter()
    for one in accounts:
        account = dict(one.get(name, {}))
        losses.update(account.pop("lost", {}))
        outcomes.update({key: value for key, value in account.items() if isinstance(value, int)})
    return outcomes, losses
