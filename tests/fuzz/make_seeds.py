#!/usr/bin/env python3
"""Writes the first inputs of each fuzzer into corpus/NAME/, beside what fuzzing has added.

    tests/fuzz/make_seeds.py
"""
import gzip
import pathlib
import struct

CORPUS = pathlib.Path(__file__).resolve().parent / "corpus"


def write(target, name, data):
    folder = CORPUS / target
    folder.mkdir(parents=True, exist_ok=True)
    (folder / f"seed-{name}").write_bytes(data)


def text(value):
    """A length and as many bytes."""
    return bytes([len(value)]) + value


# ---- Feed records, by offset.

def put(record, offset, value):
    record[offset:offset + len(value)] = value


def ftdc(size):
    record = bytearray(size)
    put(record, 0, b"20261201")
    for i in range(7):
        put(record, 24 + 8 * i, struct.pack("<d", 3500.5 + i))
    put(record, 80, struct.pack("<i", 1234))
    put(record, 152, b"09:30:00")
    put(record, 164, struct.pack("<i", 500))
    put(record, 168, b"rb2610")
    for level in range(5):
        put(record, 200 + 32 * level, struct.pack("<dixxxxdi", 3500 - level, 7, 3501 + level, 8))
    return bytes(record)


def czce():
    record = bytearray(239)
    put(record, 0, b"SR701")
    put(record, 75, struct.pack("<d", 6001.0))
    put(record, 183, struct.pack("<HBB", 2026, 12, 1))
    put(record, 190, struct.pack("<I", 250))
    put(record, 204, struct.pack("<I", 99))
    return bytes(record)


def gfex(size=239):
    record = bytearray(264)
    put(record, 0, b"20261201")
    put(record, 9, b"si2611")
    put(record, 80, struct.pack("<d", 8000.0))
    put(record, 232, b"09:30:01.045")
    return bytes(record[:size])


def lumen_head(symbol, flag):
    head = bytearray(56)
    head[4] = 1
    put(head, 11, symbol)
    put(head, 42, b"09:30:02")
    put(head, 51, struct.pack("<iB", 5, flag))
    return bytes(head)


def lumen_tick(symbol, flag):
    return lumen_head(symbol, flag) + struct.pack("<diddd", 10.5, 3, 31.5, 7.0,
                                                  10.0) + struct.pack("<idi", 4, 11.0, 5)


def lumen_summary(symbol):
    return lumen_head(symbol, 0) + struct.pack("<8d", 1, 2, 3, 4, 5, 6, 7, 8)


def convert_seeds():
    for choice, record in enumerate([ftdc(356), ftdc(356), czce()[:208], gfex(264)]):
        write("convert", f"exchange-{choice}", bytes([choice, 1]) + record)
    for flag in (1, 2, 3):
        write("convert", f"tick-{flag}", b"\x04\x02" + lumen_tick(b"rb2610", flag))
    write("convert", "summary", b"\x05\x00" + lumen_summary(b"rb2610"))
    write("convert", "odd-date", b"\x02\x00" + bytes(183) + b"\xff\xff\xff\xff" + bytes(21))


def datagram_seeds():
    lengths = {368: 0, 360: 1, 239: 2, 120: 3, 108: 4}

    def part(data):
        return bytes([lengths[len(data)]]) + data

    for exchange, data in ((2, ftdc(368)), (1, ftdc(360)), (4, czce()), (7, gfex())):
        write("datagram", f"exchange-{exchange}", bytes([exchange]) + part(data))
    merged = b"".join(part(d) for d in (lumen_summary(b"rb2610"), lumen_tick(b"rb2610", 3),
                                        lumen_tick(b"rb2611", 1), lumen_tick(b"rb2610", 1),
                                        lumen_tick(b"x" * 31, 3)))
    write("datagram", "lumen", b"\x08" + merged)


# ---- The quote server's stream.

def server_part(kind, content):
    return bytes([0x00, "QAIFMH".index(kind)]) + text(content)


def step(*parts):
    return bytes([0x08, len(parts) - 1]) + b"".join(parts)


def client_seeds():
    steps = [
        step(server_part("M", b"001IF2512"), server_part("M", b"01")),
        step(server_part("I", b"0 1IF2509"), server_part("I", b"1 20")),
        step(server_part("Q", b"IF2509"), server_part("Q", b"0"), server_part("H", b"")),
        step(server_part("F", b"0 1IF2509"), server_part("F", b"2 1x")),
        step(server_part("A", b"Nno such user")),
        step(bytes([0x81]) + b"H"),
        step(bytes([0x83]) + b"B12"),
        step(server_part("M", b"0 1" + b"x" * 27), server_part("Q", b"x" * 31)),
        b"\x00\x11\x02\x06",
    ]
    for mode in range(4):
        write("client_stream", f"mode-{mode}", bytes([mode]) + b"".join(steps))
    write("client_stream", "accepted", b"\x00" + step(server_part("A", b"Y")))
    session = b"".join(steps[:8])
    write("client_session", "accepted", b"\x00" + session + b"\xf0")
    write("client_session", "first-words", b"\x01" + session + b"\xf1")
    write("client_session", "ends", b"\x00\xf2\xf3\xf5\xf4")


def sim_seeds():
    login, query, heartbeat = b"\x00\x00\x00\x00", b"\x00\x01", b"\x00\x02"
    register, unregister = b"\x00\x03\x00\x00\x00\x00", b"\x00\x03\x00\x01\x00\x00"

    def piece(*parts):
        return bytes([0x01, len(parts) - 1]) + b"".join(parts)

    life = (piece(login) + piece(query, heartbeat) + piece(register) + b"\x08" + b"\x00" +
            piece(unregister) + piece(bytes([0x83]) + b"xyz") + piece(bytes([0x82]) + b"S0"))
    for mode in (0, 1):
        write("sim_protocol", f"life-{mode}", bytes([mode]) + life)
    write("sim_protocol", "faulty", b"\x02" + b"\x00\x03bad\x0000" + b"\x3c\x02\x04\x03\x05" + life)


# ---- Files.

TICKS = (b"TradingDay,InstrumentID,ExchangeID,LastPrice,UpdateTime,UpdateMillisec,Volume,BidPrice5\n"
         b"20261201,IF2612,CFFEX,4000.2,23:59:59,500,12,\n"
         b",0,SGE,1e-300,00:00:01,0,-13,0.1\r\n")


def tick_file_seeds():
    write("tick_file", "plain", b"p" + TICKS)
    write("tick_file", "to-pack", b"z" + TICKS)
    write("tick_file", "packed", b"p" + gzip.compress(TICKS, mtime=0))
    write("tick_file", "packed-short", b"p" + gzip.compress(TICKS, mtime=0)[:-9])
    write("tick_file", "bad-number", b"p" + TICKS.replace(b"4000.2", b"4000.x"))


def udp(group, port, data):
    length = 20 + 8 + len(data)
    head = struct.pack(">BBHHHBBH4s4s", 0x45, 0, length, 1, 0, 1, 17, 0, bytes([10, 0, 0, 1]),
                       bytes([239, 255, 10, group]))
    return head + struct.pack(">HHHH", 40000, port, 8 + len(data), 0) + data


def pcap(link_type, packets, magic=0xa1b2c3d4):
    out = struct.pack("<IHHiIII", magic, 2, 4, 0, 0, 65535, link_type)
    for i, packet in enumerate(packets):
        out += struct.pack("<IIII", 1, i, len(packet), len(packet)) + packet
    return out


def pcapng(packets):
    def block(kind, body):
        body += bytes(-len(body) % 4)
        return struct.pack("<II", kind, 12 + len(body)) + body + struct.pack("<I", 12 + len(body))

    out = block(0x0a0d0d0a, struct.pack("<IHHq", 0x1a2b3c4d, 1, 0, -1))
    out += block(1, struct.pack("<HHI", 1, 0, 65535))
    for i, packet in enumerate(packets):
        out += block(6, struct.pack("<IIIII", 0, 0, i, len(packet), len(packet)) + packet)
    return out


def capture_seeds():
    packets = [udp(1, 30001, ftdc(368)), udp(2, 30002, ftdc(360)), udp(3, 30003, czce()),
               udp(4, 30004, gfex()), udp(5, 30005, lumen_tick(b"rb2610", 3)), udp(9, 9, b"?")]
    ethernet = [b"\x01\x00\x5e\x7f\x0a\x01" + bytes(6) + b"\x08\x00" + p for p in packets]
    tagged = [e[:12] + b"\x81\x00\x00\x05" + e[12:] for e in ethernet[3:5]]
    write("capture", "ethernet", b"\x00" + pcap(1, ethernet[:3] + tagged))
    write("capture", "json-time", b"\x03" + pcap(1, ethernet[4:], 0xa1b23c4d))
    write("capture", "raw", b"\x02" + pcap(101, packets[4:]))
    write("capture", "loopback", b"\x00" + pcap(0, [b"\x02\x00\x00\x00" + p for p in packets[4:]]))
    write("capture", "cooked", b"\x04" + pcap(113, [bytes(14) + b"\x08\x00" + packets[4]]))
    write("capture", "pcapng", b"\x01" + pcapng(ethernet[4:]))
    parts = b"".join(b"\x00" + struct.pack("<H", len(p)) + p for p in packets[2:])
    write("capture", "packets", b"\x09\x03" + parts)
    write("capture", "linked", b"\x08\x00" + b"\x00" + struct.pack("<H", len(tagged[1])) + tagged[1])


# ---- Toolkit.

def tool_seeds():
    pattern = b"yyyyMMdd HH:mm:ss.iii"
    write("date_time", "parse", b"\x00" + text(pattern) + b"20240305 09:07:03.045")
    write("date_time", "parse-short", b"\x08" + text(b"yyyy-MM-dd") + b"2024-13-01")
    write("date_time", "print", b"\x01" + struct.pack("<7i", 2024, 3, 5, 9, 7, 3, 45) + b"\x20" + pattern)
    write("date_time", "seconds", b"\x0b" + struct.pack("<qi", 1_700_000_000, 5))
    write("date_time", "shift", b"\x0c" + struct.pack("<qiB", 1_700_000_000, -3, 3))
    write("date_time", "odd", b"\x05" + struct.pack("<7i", 2**31 - 1, -2**31, 0, 0, 0, 0, 0))
    write("strings", "split", b"\x00\x01,a,,bc,d")
    write("strings", "split-set", b"\x00\x03,;|a,;|b;;;c")
    write("strings", "fields", b"\x01\x04\x08\x01,a,,b")
    write("strings", "wide", b"\x02\x01,a,b")
    write("strings", "find", b"\x03\x03aabaaaab")
    write("strings", "replace", b"\x04\x02ab\x03bababab")
    write("strings", "characters", b"\x05\x03\x00abc\xc3\xa9 1")
    write("strings", "copy", b"\x06\x04ABCDEFG")
    write("tables", "texts", b"\x00\x00\x02ab\x01\x00\x01c\x02\x03\x02ab\x05\x60\x01\x02\x01c\x28")
    write("tables", "numbers", b"\x01\x02\xfb\x01\x02\x05\x02\x04\x50\x00\x00\x00\x00\x26\x64\x00")
    write("stream_buffer", "life", b"\x11\x00\x08abcdefgh\x02\x03\x00\x08ijklmnop\x04\x05\x08\x06")
    write("stream_buffer", "copy", b"\x00\x04\x00\x10abcdefgh")


def main():
    convert_seeds()
    datagram_seeds()
    client_seeds()
    sim_seeds()
    tick_file_seeds()
    capture_seeds()
    tool_seeds()


if __name__ == "__main__":
    main()
