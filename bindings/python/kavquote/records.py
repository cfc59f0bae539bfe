"""Quotes as NumPy records."""

from typing import Any

import numpy
import numpy.typing

from ._native import QUOTE_DTYPE

Batch = numpy.typing.NDArray[numpy.void]

_TIME_BYTES = QUOTE_DTYPE["UpdateTime"].itemsize
_DIGITS = (0, 1, 3, 4, 6, 7)  # of HH:MM:SS
_SECONDS = numpy.array((36000, 3600, 600, 60, 10, 1))


def texts(column: numpy.typing.NDArray[numpy.bytes_]) -> numpy.typing.NDArray[numpy.str_]:
    """A column of texts as str: bytes up to the first NUL, what is not UTF-8 as U+FFFD.

    >>> batch = numpy.zeros(2, kavquote.QUOTE_DTYPE)
    >>> batch["InstrumentID"] = b"IF2612", b"rb2705"
    >>> kavquote.texts(batch["InstrumentID"])
    array(['IF2612', 'rb2705'], dtype='<U6')
    """
    different, places = numpy.unique(column, return_inverse=True)
    decoded = [value.split(b"\0", 1)[0].decode(errors="replace") for value in different]
    return numpy.array(decoded, dtype=numpy.str_)[places]


def times(batch: Batch) -> numpy.typing.NDArray[numpy.timedelta64]:
    """The time of each quote since midnight, in milliseconds; NaT where a quote has none.

    >>> batch = numpy.zeros(2, kavquote.QUOTE_DTYPE)
    >>> batch["UpdateTime"], batch["UpdateMillisec"] = b"09:30:00", 500
    >>> kavquote.times(batch)
    array([34200500, 34200500], dtype='timedelta64[ms]')
    """
    characters: Any = numpy.ascontiguousarray(batch["UpdateTime"]).view(numpy.uint8)
    digits = characters.reshape(-1, _TIME_BYTES)[:, _DIGITS].astype(numpy.int64) - ord("0")
    milliseconds = digits @ _SECONDS * 1000 + batch["UpdateMillisec"]
    result: numpy.typing.NDArray[numpy.timedelta64] = milliseconds.astype("timedelta64[ms]")
    result[((digits < 0) | (digits > 9)).any(axis=1)] = numpy.timedelta64("NaT")
    return result
