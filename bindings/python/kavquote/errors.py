"""What goes wrong, as exceptions. All are kavquote.Error."""

import builtins
from collections.abc import Iterable


class Error(Exception):
    """The base of all exceptions of this package."""


class ConnectError(Error, builtins.ConnectionError):
    """No connection: the address, the network, or nobody listens."""


class LoginError(Error):
    """The login failed; `reason` is what the server said, and may be empty."""

    def __init__(self, message: str, reason: str = "") -> None:
        super().__init__(message)
        self.reason = reason


class RegistrationError(Error):
    """Symbols could not be registered; `symbols` are their names."""

    def __init__(self, message: str, symbols: Iterable[str] = ()) -> None:
        super().__init__(message)
        self.symbols = tuple(symbols)


class SessionOverError(Error, builtins.ConnectionError):
    """The session has ended for good, and not by close(): make a new client."""


class TimeoutError(Error, builtins.TimeoutError):  # noqa: A001 - it is one
    """What was waited for did not come in time."""


class ClosedError(Error):
    """The client has been closed."""


class ForkedError(Error):
    """The client belongs to the process that this one was forked from."""

    def __init__(
        self, message: str = "the client stayed in the process that made it; make one after the fork"
    ) -> None:
        super().__init__(message)
