"""Quotes one after the other, or in batches, for `for` and for `async for`."""

from __future__ import annotations

import asyncio
import time
from collections.abc import AsyncIterator, Iterator
from typing import TYPE_CHECKING, Generic, TypeVar

from ._native import Quote, Session
from .errors import Error, TimeoutError
from .records import Batch

if TYPE_CHECKING:
    from .client import Client

Item = TypeVar("Item")

_TURNS_OF_A_TASK = 256  # quotes that come without a wait before other tasks have their turn


class Readiness:
    """Lets tasks of one event loop wait for the descriptor that tells of new quotes.

    All but wait() happens on the loop's own thread, too; the library writes to the descriptor.
    """

    def __init__(self, native: Session) -> None:
        self._native = native
        self._loop: asyncio.AbstractEventLoop | None = None
        self._waiting: set[asyncio.Future[None]] = set()

    async def wait(self, deadline: float | None) -> None:
        """Returns when something may have come, or at the deadline (time.monotonic())."""
        loop = asyncio.get_running_loop()
        if self._waiting and self._loop is not loop:
            raise Error("another event loop waits for the quotes of this client")
        if self._native.arm():
            return
        future: asyncio.Future[None] = loop.create_future()
        self._add(loop, future)
        try:
            limit = None if deadline is None else max(0.0, deadline - time.monotonic())
            await asyncio.wait({future}, timeout=limit)
        finally:
            self._remove(loop, future)

    def _add(self, loop: asyncio.AbstractEventLoop, future: asyncio.Future[None]) -> None:
        if not self._waiting:
            self._loop = loop
            loop.add_reader(self._native.fd, self._wake)
        self._waiting.add(future)

    def _remove(self, loop: asyncio.AbstractEventLoop, future: asyncio.Future[None]) -> None:
        future.cancel()
        self._waiting.discard(future)
        if not self._waiting:
            loop.remove_reader(self._native.fd)

    def _wake(self) -> None:
        self._native.clear_fd()
        for future in self._waiting:
            if not future.done():
                future.set_result(None)


class Stream(Generic[Item]):
    """Works with `for` and with `async for`. Ends when the client is closed.

    Raises kavquote.TimeoutError when nothing came for `timeout` seconds (None: never), and
    kavquote.SessionOverError when the session has ended for good. May be used again after the former.
    """

    def __init__(self, client: Client, timeout: float | None) -> None:
        self._client = client
        self._native = client._native
        self._timeout = timeout
        self._turns = 0

    def _take(self, timeout: float | None) -> Item | None:
        raise NotImplementedError

    def __iter__(self) -> Iterator[Item]:
        return self

    def __next__(self) -> Item:
        item = self._take(self._timeout)
        if item is not None:
            return item
        self._raise_unless_closed()
        raise StopIteration

    def __aiter__(self) -> AsyncIterator[Item]:
        return self

    async def __anext__(self) -> Item:
        await self._give_others_a_turn()
        deadline = None if self._timeout is None else time.monotonic() + self._timeout
        while True:
            self._client._check_process()  # before a lock that a forked child may find taken for ever
            ended = self._native.ended  # asked first: what arrived before the end is taken
            item = self._take(0)
            if item is not None:
                return item
            if ended or (deadline is not None and time.monotonic() >= deadline):
                self._raise_unless_closed()
                raise StopAsyncIteration
            self._turns = 0
            await self._client._readiness.wait(deadline)

    async def _give_others_a_turn(self) -> None:
        self._turns += 1
        if self._turns >= _TURNS_OF_A_TASK:
            self._turns = 0
            await asyncio.sleep(0)

    def _raise_unless_closed(self) -> None:
        if self._client.closed:
            return
        if self._native.ended:
            self._client._raise_over()
        raise TimeoutError(f"no quote came for {self._timeout:g} s")


class Quotes(Stream[Quote]):
    """Single quotes, kavquote.Quote."""

    def _take(self, timeout: float | None) -> Quote | None:
        return self._native.next_quote(timeout)


class Batches(Stream[Batch]):
    """NumPy arrays of whatever has arrived, at most `most` quotes."""

    def __init__(self, client: Client, timeout: float | None, most: int) -> None:
        super().__init__(client, timeout)
        self._most = most

    def _take(self, timeout: float | None) -> Batch | None:
        return batch_or_none(self._native, self._most, timeout)

    async def _give_others_a_turn(self) -> None:
        await asyncio.sleep(0)


def take_batch(native: Session, most: int, timeout: float | None) -> Batch:
    """Waits for the first quote, and takes it with all others that are there. Empty: none came."""
    deadline = None if timeout is None else time.monotonic() + timeout
    while True:
        batch = native.take_batch(most)
        if len(batch) or native.ended:
            return batch if len(batch) else native.take_batch(most)
        left = None if deadline is None else deadline - time.monotonic()
        if left is not None and left <= 0:
            return batch
        native.wait_for_quotes(left)


def batch_or_none(native: Session, most: int, timeout: float | None) -> Batch | None:
    batch = take_batch(native, most, timeout)
    return batch if len(batch) else None
