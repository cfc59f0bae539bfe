"""One session with a quote server."""

from __future__ import annotations

import atexit
import os
import socket
import threading
import time
import warnings
import weakref
from collections.abc import Callable, Iterable
from functools import partial
from typing import Any, NoReturn

from . import _native
from .errors import (
    ClosedError,
    ConnectError,
    Error,
    ForkedError,
    LoginError,
    RegistrationError,
    SessionOverError,
    TimeoutError,
)
from .records import Batch
from .streams import Batches, Quotes, Readiness, batch_or_none, take_batch
from .threads import Deliverer, await_native_calls, start, tell_log

_REFUSAL_GRACE = 0.3  # s; a refusal sent right before the end may be noticed after the end
_ASK_AGAIN = 1.0  # s; a lost connection takes queued questions for the symbol list with it
_LONGEST_CLOSING = 15.0  # s; how long the end of the interpreter waits for another thread's close()

DEFAULT_CAPACITY = 65_536
DEFAULT_BATCH = 8_192


class Client:
    """A connection to a quote server, a login, and the quotes of the symbols that were registered.

    >>> with kavquote.Client(host, port) as client:
    ...     client.login("user", "password")
    ...     client.register("IF2612")
    ...     for quote in client.quotes(timeout=10):
    ...         print(quote.InstrumentID)
    ...         break
    IF2612

    host: a name or an IPv4 address. port: 1 to 65535. timeout: how long connecting may take, in
    seconds. capacity: so many quotes wait until they are taken, each takes 345 bytes. when_full: with
    "drop" the oldest one is dropped for a new one, which `dropped` counts and a warning tells; with
    "wait" none is dropped, the library waits, and what waits behind it takes memory without limit:
    also the server's answers, so take quotes while you register.

    All methods may be called on any thread. Once a session is logged in, the library mends a lost
    connection by itself; `state` and `reconnections` tell of it.
    """

    def __init__(
        self,
        host: str,
        port: int,
        *,
        timeout: float = 20.0,
        capacity: int = DEFAULT_CAPACITY,
        when_full: str = "drop",
    ) -> None:
        self._closed = True  # until there is something to close
        if when_full not in ("drop", "wait"):
            raise ValueError(f"when_full is 'drop' or 'wait', not {when_full!r}")
        if not 1 <= port <= 65535:
            raise ValueError(f"a port is a number from 1 to 65535, not {port}")
        if capacity < 1:
            raise ValueError("capacity is 1 quote at least")
        self._server = f"{host}:{port}"
        self._capacity = capacity
        self._waits_when_full = when_full == "wait"
        self._symbols: dict[str, str] = {}
        self._deliverer: Deliverer | None = None
        self._changing = threading.RLock()  # of _closed and _deliverer; never held across a join()
        self._is_shut = threading.Event()
        address = _resolve(host)
        with _making:
            if _ending.is_set():
                raise Error("the interpreter is ending")
            self._native = _native.Session(address, port, capacity, self._waits_when_full)
            self._readiness = Readiness(self._native)
            self._log_thread = start("kavquote-log", tell_log, self._native)
            self._closed = False
            _open_clients.add(self)
        self._connect(timeout)

    # ---- the session ----

    def login(self, user: str, password: str, timeout: float = 10.0) -> None:
        """Logs in and waits for the symbol list.

        user: at most 15 bytes, password: at most 32 bytes; only its MD5 digest travels. Raises
        LoginError with the server's reason, TimeoutError, or ValueError for texts that are too long.
        A login that fails closes the client.
        """
        self._check()
        _check_texts(user, password)
        if self._native.facts().login_accepted is not None:
            raise Error("this client is logged in already")
        deadline = time.monotonic() + timeout
        sent = self._native.login(user, password)
        try:
            self._await_login(sent, timeout)
            self.symbols(max(0.0, deadline - time.monotonic()))
        except BaseException:
            self.close()
            raise

    def symbols(self, timeout: float = 10.0) -> dict[str, str]:
        """The server's symbols: the instrument type, one character, by name.

        Raises TimeoutError, also when the list waits behind quotes: see register().
        """
        self._check_login()
        deadline = time.monotonic() + timeout
        known = self._native.facts().symbol_lists
        while True:
            self._native.query_symbols()
            left = deadline - time.monotonic()
            if self._wait(lambda f: f.symbol_lists != known or self._over(), min(left, _ASK_AGAIN)):
                break
            if left <= _ASK_AGAIN:
                raise self._timeout_error(
                    f"{self._server} sent no symbol list within {timeout:g} s",
                    f"no symbol list came within {timeout:g} s",
                )
        self._check()
        if self._native.facts().symbol_lists == known:
            self._raise_over()
        self._symbols = self._native.symbols()
        return dict(self._symbols)

    def register(self, *symbols: str, timeout: float = 5.0) -> None:
        """Asks for the quotes of symbols, and waits until the server has confirmed all of them.

        Raises RegistrationError for symbols that the server does not list (then none is registered)
        or that it refuses (the others are registered), and TimeoutError when it does not answer:
        the library goes on asking then, until unregister(). timeout=0 does not wait.

        With when_full="wait" the answer waits behind quotes while `capacity` of them are not taken:
        take them meanwhile, on another thread or by a callback, or TimeoutError tells of them.
        """
        self._check_login()
        self._check_listed(symbols)
        for symbol in symbols:
            if self._native.registration(symbol) != _native.Registration.REGISTERED:
                self._native.forget_answer(symbol)
            self._native.register_symbol(self._symbols[symbol], symbol)
        if timeout > 0:
            self._await_answers(symbols, timeout)

    def unregister(self, *symbols: str, timeout: float = 5.0) -> None:
        """Asks for no more quotes of symbols, and waits until the server has confirmed that.

        Quotes that have arrived before are still there to be taken. Raises TimeoutError, also when
        the answer waits behind quotes: see register().
        """
        self._check_login()
        for symbol in symbols:
            self._native.unregister_symbol(self._symbols.get(symbol, "0"), symbol)
        self._await_state(
            symbols,
            lambda symbol: self._native.registration(symbol) != _native.Registration.REGISTERED,
            timeout,
        )

    def close(self) -> None:
        """Ends the session. Afterwards no callback comes; streams end. Closing twice is fine."""
        if self._closed or not self._native.is_of_this_process():
            return
        with self._changing:
            if self._closed:
                return
            self._closed = True
            deliverer = self._deliverer
        try:
            if deliverer is not None:
                deliverer.ask_to_stop()
            self._native.close()
            if deliverer is not None:
                self._stop(deliverer)
            if self._log_thread is not threading.current_thread():
                self._log_thread.join()
        finally:
            self._is_shut.set()

    def __enter__(self) -> Client:
        return self

    def __exit__(self, *exception: object) -> None:
        self.close()

    def __del__(self) -> None:
        if not self._closed and self._native.is_of_this_process():
            warnings.warn(f"{self!r} was not closed", ResourceWarning, source=self)
            self.close()

    def __repr__(self) -> str:
        if not self._native.is_of_this_process():
            return f"<kavquote.Client {self._server} of another process>"
        return f"<kavquote.Client {self._server} {'closed' if self._closed else self.state}>"

    # ---- quotes ----

    def quotes(self, timeout: float | None = None) -> Quotes:
        """A stream of single quotes, for `for` and for `async for`.

        timeout: seconds without a quote until TimeoutError is raised; None: it waits for ever.
        """
        self._check_stream()
        return Quotes(self, timeout)

    def batches(self, timeout: float | None = None, most: int = DEFAULT_BATCH) -> Batches:
        """A stream of arrays as batch() returns them, none of them empty."""
        self._check_stream()
        return Batches(self, timeout, _at_least_one(most))

    def batch(self, timeout: float | None = None, most: int = DEFAULT_BATCH) -> Batch:
        """Waits for a quote, and takes it with all others that have arrived, at most `most`.

        A NumPy array of the records, kavquote.QUOTE_DTYPE, whose memory is its own. Empty when
        nothing came for `timeout` seconds; None: it waits for ever.
        """
        self._check_stream()
        batch = take_batch(self._native, _at_least_one(most), timeout)
        if not len(batch) and self._native.ended:
            self._check()
            self._raise_over()
        return batch

    def __iter__(self) -> Quotes:
        return self.quotes()

    def __aiter__(self) -> Quotes:
        return self.quotes()

    def on_quote(self, callback: Callable[[_native.Quote], object] | None) -> None:
        """Calls `callback` with each quote, on a thread of its own; None ends that.

        An exception of the callback, SystemExit too, goes to the log, and the next quote comes.
        Meanwhile streams and batch() are refused. Once close() or on_quote(None) has returned, no call
        comes any more, unless one has not returned for 10 s.
        """
        self._deliver(callback, self._native.next_quote)

    def on_batch(self, callback: Callable[[Batch], object] | None) -> None:
        """The same with batches as batch() returns them."""
        self._deliver(callback, partial(batch_or_none, self._native, DEFAULT_BATCH))

    # ---- what is known ----

    @property
    def closed(self) -> bool:
        """Whether close() was called."""
        return self._closed

    @property
    def state(self) -> str:
        """ "connecting" until the login was accepted, "live", "reconnecting", "over" for good."""
        self._check_process()
        facts = self._native.facts()
        return "over" if facts.disconnected_before_login else facts.state

    @property
    def reconnections(self) -> int:
        """How often the library has mended a lost connection."""
        self._check_process()
        return self._native.facts().reconnections

    @property
    def received(self) -> int:
        """Quotes that have arrived."""
        self._check_process()
        return self._native.received

    @property
    def dropped(self) -> int:
        """Quotes that were dropped because more than `capacity` waited."""
        self._check_process()
        return self._native.dropped

    @property
    def waiting(self) -> int:
        """Quotes that have arrived and were not taken yet."""
        self._check_process()
        return self._native.waiting

    # ---- how ----

    def _connect(self, timeout: float) -> None:
        try:
            self._native.connect()
            answered = self._wait(lambda facts: facts.connected is not None, timeout)
            self._check()  # the end of the interpreter may have closed the client
            connected = self._native.facts().connected
        except BaseException:
            self.close()
            raise
        if connected:
            return
        self.close()
        if answered:
            raise ConnectError(
                f"cannot connect to {self._server}: refused or unreachable; check host and port, and "
                "that the server runs"
            )
        raise TimeoutError(f"{self._server} did not answer within {timeout:g} s")

    def _await_login(self, sent: bool, timeout: float) -> None:
        def answered(facts: _native.Facts) -> bool:
            return facts.login_accepted is not None

        lost = not sent
        if sent:
            self._wait(lambda facts: answered(facts) or facts.disconnected_before_login, timeout)
            lost = self._native.facts().disconnected_before_login
        if lost:
            self._wait(answered, _REFUSAL_GRACE)
        self._check()  # another thread may have closed the client
        self._judge_login(self._native.facts(), lost, timeout)

    def _judge_login(self, facts: _native.Facts, lost: bool, timeout: float) -> None:
        if facts.login_accepted:
            return
        if facts.login_accepted is None:
            if not lost:
                raise TimeoutError(f"{self._server} did not answer the login within {timeout:g} s")
            raise LoginError(f"{self._server} closed the connection before it answered the login")
        reason = facts.login_reason
        if facts.refused_by_server:
            told = reason or "no reason given"
            raise LoginError(f"{self._server} refused the login: {told}", reason)
        raise LoginError(
            f"{self._server} accepted the login but sent no symbol list ({reason})", reason
        )

    def _check_listed(self, symbols: Iterable[str]) -> None:
        if not all(symbol in self._symbols for symbol in symbols):
            self.symbols()  # it may have grown with a reconnection
        unknown = [symbol for symbol in symbols if symbol not in self._symbols]
        if unknown:
            raise RegistrationError(
                f"{self._server} does not list {', '.join(unknown)}; symbols() tells what it lists",
                unknown,
            )

    def _await_answers(self, symbols: Iterable[str], timeout: float) -> None:
        unknown = _native.Registration.UNKNOWN
        self._await_state(symbols, lambda s: self._native.registration(s) != unknown, timeout)
        refused = [
            symbol
            for symbol in symbols
            if self._native.registration(symbol) == _native.Registration.REFUSED
        ]
        for symbol in refused:  # else the library asks again for ever
            self._native.unregister_symbol(self._symbols[symbol], symbol)
        if refused:
            raise RegistrationError(f"{self._server} refused {', '.join(refused)}", refused)

    def _await_state(
        self, symbols: Iterable[str], reached: Callable[[str], bool], timeout: float
    ) -> None:
        missing = list(symbols)

        def none_is_missing(_: _native.Facts) -> bool:
            missing[:] = [symbol for symbol in missing if not reached(symbol)]
            return not missing or self._over()

        self._wait(none_is_missing, timeout)
        self._check()
        if missing and self._over():
            self._raise_over()
        if missing:
            names = ", ".join(missing)
            raise self._timeout_error(
                f"{self._server} did not answer for {names} in {timeout:g} s",
                f"no answer for {names} came in {timeout:g} s",
            )

    def _timeout_error(self, silent: str, late: str) -> TimeoutError:
        """With `late` when the answer cannot have come through, with `silent` otherwise."""
        waiting = self._native.waiting
        if self._waits_when_full and waiting == self._capacity:
            return TimeoutError(f"{late}: {waiting} quotes wait to be taken, and the answer behind them")
        return TimeoutError(silent)

    def _wait(self, reached: Callable[[_native.Facts], bool], timeout: float) -> bool:
        """Until `reached`, or the client is closed, or the time is over."""
        deadline = time.monotonic() + timeout
        while True:
            seen = self._native.changes()
            if reached(self._native.facts()):
                return True
            left = deadline - time.monotonic()
            if self._closed or left <= 0:
                return False
            self._native.wait_for_change(seen, left)

    def _deliver(
        self, callback: Callable[[Any], object] | None, take: Callable[[float], Any]
    ) -> None:
        self._check()
        if callback is not None and not callable(callback):
            raise TypeError("a callback is a function of one argument, or None")
        while True:
            with self._changing:
                self._check()  # another thread may have closed the client
                former = self._deliverer
                if former is None:
                    if callback is not None:
                        self._deliverer = Deliverer(self._native, take, callback)
                    return
            self._stop(former)

    def _stop(self, deliverer: Deliverer) -> None:
        deliverer.stop()
        with self._changing:
            if self._deliverer is deliverer:  # it is there until it has stopped, for others to wait
                self._deliverer = None

    def _close_and_wait(self) -> None:
        """Waits for the close() of another thread, too."""
        self.close()
        if self._native.is_of_this_process():
            self._is_shut.wait(_LONGEST_CLOSING)

    def _over(self) -> bool:
        return bool(self._native.ended)

    def _raise_over(self) -> NoReturn:
        facts = self._native.facts()
        if facts.disconnected_before_login:
            why = "it closed the connection before a login"
        elif facts.relogin_refused:
            why = "it refused the login after a reconnection"
        else:
            why = "the login after a reconnection failed too often"
        raise SessionOverError(f"the session with {self._server} is over: {why}; make a new client")

    def _check_process(self) -> None:
        if not self._native.is_of_this_process():
            raise ForkedError()

    def _check(self) -> None:
        self._check_process()
        if self._closed:
            raise ClosedError(f"the client of {self._server} has been closed")

    def _check_login(self) -> None:
        self._check()
        if not self._native.facts().login_accepted:
            raise Error("log in first: client.login(user, password)")

    def _check_stream(self) -> None:
        self._check()
        if self._deliverer is not None:
            raise Error("a callback takes the quotes; on_quote(None) ends that")


def _resolve(host: str) -> str:
    try:
        found = socket.getaddrinfo(host, None, socket.AF_INET, socket.SOCK_STREAM)
    except OSError as error:
        raise ConnectError(f"no IPv4 address of {host!r}: {error}") from error
    return str(found[0][4][0])


def _check_texts(user: str, password: str) -> None:
    # Here, since the native module's error would show what it was given.
    texts = (user, password)
    if not all(isinstance(text, str) for text in texts):
        raise TypeError("a user name and a password are str")
    if any("\ud800" <= character <= "\udfff" for text in texts for character in text):
        raise ValueError("a user name and a password are texts that UTF-8 can hold")


def _at_least_one(most: int) -> int:
    if most < 1:
        raise ValueError("a batch has room for 1 quote at least")
    return most


# Whoever makes a client and whoever closes all does it under one lock, so that none is missed. A fork
# waits for it: the child finds it free.
_making = threading.RLock()
_ending = threading.Event()
_open_clients: weakref.WeakSet[Client] = weakref.WeakSet()  # closed ones, too, until they go

os.register_at_fork(
    before=_making.acquire,
    after_in_parent=_making.release,
    after_in_child=_making.release,
)


@atexit.register
def _close_all() -> None:
    # Before the interpreter takes the threads down wherever they are.
    with _making:
        _ending.set()
        clients = list(_open_clients)
    for client in clients:
        client._close_and_wait()
    await_native_calls()
