#!/usr/bin/env python3
"""Checks the captured messages of a page against the simulator.

Each ```hexdump block behind "Client to server" is sent to a simulator of our own, in the page's
order; each behind "Server to client" has to come back, byte for byte. Of a quote and of a heartbeat
the time-dependent bytes may differ.

Exit status: 0 all of it is true; 1 something is not; 2 wrong arguments.
"""

import pathlib
import re
import socket
import subprocess
import sys

LENGTHS = {"L": 56, "A": 24, "S": 8, "M": 32, "N": 32, "I": 32, "R": 32, "F": 32, "Q": 367, "H": 13}
# The bytes that are the same in every session: of a quote all before the record, its symbol.
FIXED = {"Q": (slice(0, 22), slice(31, 62)), "H": (slice(0, 3), slice(11, 13))}
BLOCK = re.compile(r"(Client to server|Server to client)|```hexdump\n(.*?)```", re.DOTALL)
ROW = re.compile(r"^([0-9a-f]{4})  ((?:[0-9a-f]{2} ?){1,16}) +(.{1,16})$", re.MULTILINE)
PATIENCE_S = 30


class PageError(Exception):
    """What is wrong with the page."""


def bytes_of(block):
    """The bytes of a block whose offsets and characters are right as well."""
    data = b""
    for offset, digits, characters in ROW.findall(block):
        row = bytes.fromhex(digits)
        shown = "".join(chr(byte) if 32 <= byte < 127 else "." for byte in row)
        if int(offset, 16) != len(data) or shown != characters:
            raise PageError(f"offset {offset}: offset or characters do not fit the bytes")
        data += row
    if not data or len(data) != LENGTHS.get(chr(data[0])):
        raise PageError(f"a block of {len(data)} bytes is no message")
    return data


def messages_of(page):
    """(sent by the client?, bytes) of each block; two blocks in a row have the same sender."""
    sender = None
    for match in BLOCK.finditer(page):
        if match.group(1):
            sender = match.group(1)
        elif sender is None:
            raise PageError("a block behind neither 'Client to server' nor 'Server to client'")
        else:
            yield sender == "Client to server", bytes_of(match.group(2))


def fixed_part(message):
    parts = FIXED.get(chr(message[0]), (slice(None),))
    return [message[part] for part in parts]


def next_message(stream):
    kind = stream.read(1)
    if not kind:
        raise PageError("the simulator has closed the connection")
    return kind + stream.read(LENGTHS[kind.decode("latin-1")] - 1)


def expect(stream, wanted):
    """Reads on until the message has come; what else comes meanwhile is not in the page."""
    try:
        while fixed_part(next_message(stream)) != fixed_part(wanted):
            pass
    except TimeoutError as error:
        raise PageError(f"never came: {wanted[:32].hex(' ')} ...") from error


def replay(page, port):
    with socket.create_connection(("127.0.0.1", port), timeout=PATIENCE_S) as connection, \
            connection.makefile("rb") as stream:
        count = 0
        for is_clients, message in messages_of(page):
            count += 1
            if is_clients:
                connection.sendall(message)
            else:
                expect(stream, message)
        if count < len(LENGTHS):
            raise PageError(f"{count} messages only")


def main(arguments):
    if len(arguments) != 2:
        print("usage: replay_wire_page.py KAV-SIM PAGE", file=sys.stderr)
        return 2
    command = [arguments[0], "--user", "trader", "--password", "secret", "--rate", "20", "--quiet",
               "--heartbeat", "1", "--seconds", str(2 * PATIENCE_S)]
    page = pathlib.Path(arguments[1]).read_text(encoding="utf-8")
    with subprocess.Popen(command, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL,
                          text=True) as simulator:
        try:
            replay(page, int(simulator.stdout.readline().rpartition(":")[2]))
        except PageError as error:
            print(f"{arguments[1]}: {error}", file=sys.stderr)
            return 1
        finally:
            simulator.terminate()
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
