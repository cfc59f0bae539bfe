"""A simulated quote server for each test that asks for one, and a client that is logged in."""

from __future__ import annotations

import dataclasses
import os
import select
import subprocess
import time
from collections.abc import Callable, Iterator

import kavquote
import pytest

HOST = "127.0.0.1"
LIMIT = 20.0  # s; nothing here takes so long on a machine that is well


def wait_until(condition: Callable[[], object], limit: float = LIMIT) -> bool:
    deadline = time.monotonic() + limit
    while time.monotonic() < deadline:
        if condition():
            return True
        time.sleep(0.005)
    return bool(condition())


@dataclasses.dataclass
class Server:
    process: subprocess.Popen[str]
    port: int

    def end(self) -> None:
        self.process.terminate()
        try:
            self.process.wait(LIMIT)
        except subprocess.TimeoutExpired:
            self.process.kill()
            self.process.wait()


def start_server(*arguments: str) -> Server:
    command = [os.environ["KAV_SIM"], "--port", "0", "--quiet", "--seconds", "300", *arguments]
    process = subprocess.Popen(
        command, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True
    )
    assert process.stdout is not None
    readable, _, _ = select.select([process.stdout], [], [], LIMIT)
    line = process.stdout.readline() if readable else ""
    if not line.startswith("listening on "):
        process.kill()
        process.wait()
        raise RuntimeError(f"{command} said {line!r} instead of where it listens")
    return Server(process, int(line.rsplit(":", 1)[1]))


@pytest.fixture
def serve() -> Iterator[Callable[..., Server]]:
    """serve("--rate", "100") starts one with these options."""
    servers: list[Server] = []

    def serve_one(*arguments: str) -> Server:
        servers.append(start_server(*arguments))
        return servers[-1]

    yield serve_one
    for server in servers:
        server.end()
        assert server.process.stdout is not None
        server.process.stdout.close()


@pytest.fixture
def server(serve: Callable[..., Server]) -> Server:
    return serve("--rate", "200")


@pytest.fixture
def client(server: Server) -> Iterator[kavquote.Client]:
    with kavquote.Client(HOST, server.port) as one:
        one.login("user", "password", LIMIT)
        yield one
