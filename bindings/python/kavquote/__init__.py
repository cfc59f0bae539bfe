"""Quotes of Chinese futures from a quote server, as Python objects and NumPy records.

>>> with kavquote.Client(host, port) as client:
...     client.login("user", "password")
...     client.register("IF2612", "rb2705")
...     batch = client.batch(timeout=10)
>>> batch.dtype == kavquote.QUOTE_DTYPE
True

The library's log lines go to the logger "kavquote".
"""

from ._native import QUOTE_DTYPE, Quote
from .client import Client
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
from .records import Batch, texts, times

__all__ = [
    "QUOTE_DTYPE",
    "Batch",
    "Client",
    "ClosedError",
    "ConnectError",
    "Error",
    "ForkedError",
    "LoginError",
    "Quote",
    "RegistrationError",
    "SessionOverError",
    "TimeoutError",
    "texts",
    "times",
]
