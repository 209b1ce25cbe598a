# SPDX-License-Identifier: Apache-2.0
"""Compares three books: the programs' numbers, the daemons' ledgers, and the rows of the database."""
from __future__ import annotations

from typing import Any

import asyncpg

from daemons import OUTBOX, POSTS, sum_of

# Losses after which the server may have the report nevertheless.
UNCERTAIN = {"noAnswer", "notSent"}
ROWS = """
    SELECT (event->>'device')::int AS device, array_agg((event->>'number')::int) AS numbers
    FROM events WHERE event->>'run' = $1 GROUP BY device"""


class Findings(list[str]):
    def expect(self, holds: bool, rule: str) -> None:
        if not holds:
            self.append(rule)


def audit_ledgers(accounts: list[dict[str, Any]], rows: int, findings: Findings) -> int:
    """The number of reports that are lost by a named cause."""
    (posts, lost_posts), (kept, lost_kept) = sum_of(accounts, POSTS), sum_of(accounts, OUTBOX)
    lost = lost_posts + lost_kept
    named, uncertain = lost.total(), sum(lost[cause] for cause in UNCERTAIN)
    delivered = posts["delivered"] + kept["delivered"]
    print(f"daemons: {posts['accepted']} reports accepted = {posts['delivered']} delivered at once"
          f" + {kept['delivered']} from outboxes + {named} lost {dict(lost) if lost else ''}")
    findings.expect(posts["accepted"] == delivered + named, "accepted = delivered + lost by cause")
    findings.expect(posts["kept"] == kept["accepted"], "kept = accepted by the outboxes")
    findings.expect(0 <= rows - delivered <= uncertain, f"rows = delivered: {rows} and {delivered}")
    return named


async def audit_numbers(database: asyncpg.Connection, book: dict[str, Any], findings: Findings) -> int:
    """Each report by its number, of one run of the programs. How many are missing in the database."""
    rows = {row["device"]: row["numbers"] for row in await database.fetch(ROWS, book["run"])}
    missing_in_all = 0
    for device, (sent, refused) in enumerate(book["devices"]):
        numbers = sorted(rows.get(device, []))
        missing = set(range(sent)) - set(numbers) - set(refused)
        repeated = {a for a, b in zip(numbers, numbers[1:]) if a == b}
        missing_in_all += len(missing)
        where = f"run {book['run']}, device {device}:"
        findings.expect(not repeated, f"{where} {len(repeated)} numbers repeated, from {min(repeated, default=0)} on")
        if missing:
            print(where, len(missing), "numbers missing, from", min(missing), "on")
    sent_in_all = sum(sent for sent, _ in book["devices"])
    refused_in_all = sum(len(refused) for _, refused in book["devices"])
    print(f"programs, run {book['run']}: {sent_in_all} reports sent, {refused_in_all} not accepted by a daemon,"
          f" {missing_in_all} missing")
    return missing_in_all


async def audit(database: asyncpg.Connection, accounts: list[dict[str, Any]], books: list[dict[str, Any]]) -> bool:
    """Whether each report is in the database once, or lost by a named cause."""
    findings = Findings()
    named = audit_ledgers(accounts, await database.fetchval("SELECT count(*) FROM events"), findings)
    missing = sum([await audit_numbers(database, book, findings) for book in books])
    findings.expect(missing <= named, f"{missing - named} reports are lost without a cause")
    unreadable = await database.fetchval("SELECT count(*) FROM unreadable")
    findings.expect(unreadable == 0, f"{unreadable} messages are unreadable")
    unfiltered = await database.fetchval("SELECT count(*) FROM events WHERE event ? 'user'")
    findings.expect(unfiltered == 0, f"{unfiltered} events have the key that the bag's filter removes")
    versions = """SELECT event->>'StorebagVersion' AS bag, count(DISTINCT event->>'_productFamily') AS devices
        FROM events WHERE event ? 'StorebagVersion' GROUP BY bag ORDER BY bag"""
    for row in await database.fetch(versions):
        print(f"bag {row['bag']}: {row['devices']} devices")
    for finding in findings:
        print("FAILED:", finding)
    return not findings
