"""The package's own threads: one writes the log, one calls back.

Both are daemons that end with their client; at the end of the interpreter clients are closed before
threads are. Neither holds a client, so that one that nobody uses any more can go.
"""

from __future__ import annotations

import logging
import sys
import threading
import time
from collections.abc import Callable
from typing import Any

from . import _native

_logger = logging.getLogger("kavquote")
_LEVELS = (logging.DEBUG, logging.INFO, logging.WARNING, logging.ERROR)

_SLICE = 0.05  # s; an idle callback thread looks so often whether it is to end
_LONGEST_CALLBACK = 10.0  # s; how long the end of a callback is waited for
_LONGEST_LEAVING = 5.0  # s; how long the end of native calls is waited for


def start(name: str, target: Callable[..., None], *arguments: Any) -> threading.Thread:
    thread = threading.Thread(target=target, args=arguments, name=name, daemon=True)
    thread.start()
    return thread


def tell_log(native: _native.Session) -> None:
    """Hands the library's lines to `logging` until the session has none any more."""
    while lines := native.take_log():
        for level, text in lines:
            _logger.log(_LEVELS[level], "%s", text)


def await_native_calls() -> None:
    """Until no other thread is in native code any more: the end of the interpreter aborts there.

    For the end, when all clients are closed and their calls return.
    """
    deadline = time.monotonic() + _LONGEST_LEAVING
    inside = _threads_inside()
    while inside and time.monotonic() < deadline:
        time.sleep(0.001)
        inside &= _threads_inside()


def _threads_inside() -> set[int]:
    # A native call has no frame of its own: the last one is that of the package's function.
    frames = sys._current_frames()
    del frames[threading.get_ident()]
    return {
        thread
        for thread, frame in frames.items()
        if frame.f_globals.get("__package__") == __package__
    }


class Deliverer:
    """Calls back with what `take(timeout)` brings, which is None when nothing came."""

    def __init__(
        self,
        native: _native.Session,
        take: Callable[[float], Any],
        callback: Callable[[Any], object],
    ) -> None:
        self._native = native
        self._take = take
        self._callback = callback
        self._stop = threading.Event()
        self._thread = start("kavquote-callback", self._run)

    def ask_to_stop(self) -> None:
        self._stop.set()

    def stop(self) -> None:
        """Waits for the callback in progress, and for that of what was taken already.

        Inside the callback itself it returns at once.
        """
        self.ask_to_stop()
        if self._thread is threading.current_thread():
            return
        self._thread.join(_LONGEST_CALLBACK)
        if self._thread.is_alive():
            _logger.error("a callback takes over %g s: look where it hangs", _LONGEST_CALLBACK)

    def _run(self) -> None:
        while not self._stop.is_set():
            item = self._take(_SLICE)
            if item is not None:  # also when it is to end by now: nobody else can take it any more
                self._call(item)
            elif self._native.ended:
                return

    def _call(self, item: Any) -> None:
        try:
            self._callback(item)
        except BaseException:  # SystemExit, too: this thread is not the caller's to end
            _logger.exception("a callback of yours raised; the next quote comes all the same")
