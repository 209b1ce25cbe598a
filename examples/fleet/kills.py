# SPDX-License-Identifier: Apache-2.0
"""Kills each server without notice (SIGKILL) while devices report. An outage lasts until it was felt often enough."""
from __future__ import annotations

import signal

from fleet import Fleet, until
from processes import Process


async def kill_servers(fleet: Fleet) -> None:
    for kill in (
        kill_an_ingest,
        kill_all_ingests,
        kill_the_leader,
        freeze_the_leader,
        kill_two_nodes,
        kill_all_nodes,
        kill_nginx,
        kill_the_store,
        kill_the_database,
    ):
        assert kill.__doc__
        fleet.say(kill.__doc__)
        await kill(fleet)
        await fleet.until_answered("204")
    await fleet.until_replicated()
    await fleet.until_stored()


async def kill_an_ingest(fleet: Fleet) -> None:
    """kill an ingest: nginx gives its posts to the other one"""
    fleet.servers.workers[0].kill()
    await fleet.until_answered("204")
    fleet.servers.workers[0].start()


async def kill_all_ingests(fleet: Fleet) -> None:
    """kill all ingests: devices get 429, and keep their messages"""
    for worker in fleet.servers.workers:
        worker.kill()
    await fleet.until_answered("429")
    for worker in fleet.servers.workers:
        worker.start()


async def kill_the_leader(fleet: Fleet) -> None:
    """kill the node that leads the stream: another one leads it"""
    await fleet.until_replicated()
    leader = await fleet.leader()
    fleet.servers.nodes[leader].kill()
    await fleet.until_answered("204")
    fleet.servers.nodes[leader].start()


async def freeze_the_leader(fleet: Fleet) -> None:
    """stop the node that leads the stream, as if its machine was lost: its connections stay open, without an answer"""
    await fleet.until_replicated()
    node = fleet.servers.nodes[await fleet.leader()]
    node.send(signal.SIGSTOP)
    await fleet.until_answered("204")
    node.send(signal.SIGCONT)


async def kill_two_nodes(fleet: Fleet) -> None:
    """kill two of three nodes: without a majority, devices get 429"""
    await fleet.until_replicated()
    survivor = await fleet.leader()
    await kill_nodes(fleet, [node for number, node in enumerate(fleet.servers.nodes) if number != survivor])


async def kill_all_nodes(fleet: Fleet) -> None:
    """kill all nodes: their files have the messages"""
    await fleet.until_replicated()
    await kill_nodes(fleet, fleet.servers.nodes)


async def kill_nodes(fleet: Fleet, nodes: list[Process]) -> None:
    for node in nodes:
        node.kill()
    await fleet.until_answered("429")
    for node in nodes:
        node.start()


async def kill_nginx(fleet: Fleet) -> None:
    """kill nginx: devices find no server, and keep their messages"""
    goal = await fleet.kept() + len(fleet.daemons)

    async def is_felt() -> bool:
        return await fleet.kept() >= goal

    fleet.servers.nginx.kill()
    await until("messages in outboxes", is_felt)
    fleet.servers.nginx.start()


async def kill_the_store(fleet: Fleet) -> None:
    """kill the store: the stream keeps the messages, and devices notice nothing"""
    fleet.servers.store.kill()
    await fleet.until_answered("204")
    fleet.servers.store.start()


async def kill_the_database(fleet: Fleet) -> None:
    """kill PostgreSQL: the store ends, and begins anew; devices notice nothing"""
    await fleet.database.close()
    fleet.servers.database.kill()
    await until("the store's end", lambda: fleet.servers.store.has_ended)
    await fleet.until_answered("204")
    fleet.servers.database.start()
    fleet.database = await until("a database", fleet.servers.open_database)
    fleet.servers.store.start()
