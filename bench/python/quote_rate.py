#!/usr/bin/env python3
"""Quotes a second into NumPy batches, into single quotes, and into a C++ program, one after the other.

A sender on 127.0.0.1 writes the same quotes to each as fast as it takes them.
"""

from __future__ import annotations

import argparse
import os
import platform
import socket
import statistics
import struct
import subprocess
import sys
import time

import kavquote
import numpy

SYMBOL = b"IF2612"
TYPE = b"1"
QUOTES_IN_A_WRITE = 178  # 64 KiB
REQUEST_BYTES = {b"L": 56, b"S": 8, b"N": 32, b"R": 32, b"H": 13}
LIMIT = 120  # s


def block_of_quotes() -> bytes:
    records = numpy.zeros(QUOTES_IN_A_WRITE, kavquote.QUOTE_DTYPE)
    records["InstrumentID"] = SYMBOL
    records["LastPrice"] = 4000.2
    records["Volume"] = numpy.arange(QUOTES_IN_A_WRITE)
    return b"".join(b"Q" + TYPE + bytes(20) + record.tobytes() for record in records)


def answer(request: bytes) -> bytes:
    symbol = struct.pack("28s", SYMBOL)
    if request[:1] == b"L":
        return b"AY" + bytes(22)
    if request[:1] == b"S":
        return b"M\0\0" + TYPE + symbol + b"M\x001" + TYPE + bytes(28)
    return b"I0\0" + TYPE + symbol if request[:1] == b"N" else b""


def serve_until_registered(connection: socket.socket) -> None:
    waiting = b""
    while True:
        waiting += connection.recv(4096)
        while waiting and len(waiting) >= (size := REQUEST_BYTES[waiting[:1]]):
            request, waiting = waiting[:size], waiting[size:]
            connection.sendall(answer(request))
            if request[:1] == b"N":
                return


def send_quotes(quotes: int) -> None:
    """Prints the port, and sends so many quotes to each client that comes."""
    block = block_of_quotes()
    with socket.create_server(("127.0.0.1", 0)) as listener:
        print(listener.getsockname()[1], flush=True)
        while True:
            connection, _ = listener.accept()
            with connection:
                try:
                    serve_until_registered(connection)
                    for _ in range(quotes // QUOTES_IN_A_WRITE + 1):
                        connection.sendall(block)
                    while connection.recv(4096):  # the client leaves first
                        pass
                except OSError:
                    pass


def seconds_of_batches(port: int, quotes: int) -> float:
    taken = 0
    for batch in logged_in(port).batches(LIMIT):
        if taken == 0:
            begin = time.perf_counter()
        taken += len(batch)
        if taken >= quotes:
            return time.perf_counter() - begin
    raise RuntimeError("the quotes ended early")


def seconds_of_single_quotes(port: int, quotes: int) -> float:
    for taken, quote in enumerate(logged_in(port).quotes(LIMIT)):
        if taken == 0:
            begin = time.perf_counter()
        if taken == quotes - 1:
            return time.perf_counter() - begin
    raise RuntimeError("the quotes ended early")


def logged_in(port: int) -> kavquote.Client:
    global client
    client = kavquote.Client("127.0.0.1", port, when_full="wait")
    client.login("user", "password")
    client.register(SYMBOL.decode())
    return client


def in_python(measure):
    def seconds(port: int, quotes: int) -> float:
        try:
            return measure(port, quotes)
        finally:
            client.close()

    return seconds


def in_cpp(program: str):
    def seconds(port: int, quotes: int) -> float:
        command = [program, str(port), str(quotes)]
        return float(subprocess.run(command, check=True, capture_output=True, timeout=LIMIT).stdout)

    return seconds


def measure(receivers: dict, port: int, quotes: int, rounds: int) -> dict[str, list[float]]:
    rates: dict[str, list[float]] = {name: [] for name in receivers}
    for turn in range(rounds):
        print(f"round {turn + 1} of {rounds}", file=sys.stderr)
        for name, seconds in receivers.items():
            rates[name].append(quotes / seconds(port, quotes))
    return rates


def report(rates: dict[str, list[float]], quotes: int) -> None:
    print(f"{quotes} quotes a round; {os.cpu_count()} processors, {platform.release()}")
    base = next(iter(rates.values()))
    for name, values in rates.items():
        ratio = statistics.median(a / b for a, b in zip(values, base, strict=True))
        print(
            f"{name:14} {statistics.median(values):11,.0f} quotes/s, median"
            f" ({min(values):,.0f} to {max(values):,.0f}); {ratio:.2f} of C++"
        )


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("cpp", help="kav-count-quotes, the C++ program")
    parser.add_argument("--quotes", type=int, default=1_000_000, help="in a round (%(default)s)")
    parser.add_argument("--rounds", type=int, default=5, help="of all receivers (%(default)s)")
    options = parser.parse_args()
    if options.quotes < 1 or options.rounds < 1:
        parser.error("--quotes and --rounds are 1 at least")
    receivers = {
        "C++": in_cpp(options.cpp),
        "batches": in_python(seconds_of_batches),
        "single quotes": in_python(seconds_of_single_quotes),
    }
    sender = subprocess.Popen(
        [sys.executable, __file__, "--send", str(options.quotes)], stdout=subprocess.PIPE, text=True
    )
    try:
        port = int(sender.stdout.readline())
        report(measure(receivers, port, options.quotes, options.rounds), options.quotes)
    finally:
        sender.kill()
        sender.wait()


if __name__ == "__main__":
    if sys.argv[1:2] == ["--send"]:
        send_quotes(int(sys.argv[2]))
    else:
        main()
