"""Quotes in all the ways that they can be taken."""

import asyncio
import logging
import pickle
import threading

import kavquote
import numpy
import pytest
from conftest import HOST, LIMIT, wait_until
from kavquote.threads import Deliverer


@pytest.fixture
def registered(client):
    client.register("IF2612", "Au(T+D)", timeout=LIMIT)
    return client


def test_quotes_come_one_by_one(registered):
    quotes = [quote for quote, _ in zip(registered.quotes(LIMIT), range(10), strict=False)]
    assert {quote.InstrumentID for quote in quotes} == {"IF2612", "Au(T+D)"}
    for quote in quotes:
        assert quote.BidPrice1 < quote.AskPrice1
        assert quote.LowestPrice <= quote.LastPrice <= quote.HighestPrice
        assert isinstance(quote.Volume, int)
        assert len(quote.TradingDay) == 8 and quote.TradingDay.isdigit()


def test_volume_never_goes_back_whoever_takes_the_quotes(registered):
    volumes = []
    while len(volumes) < 60:
        for quote in registered:
            if quote.InstrumentID == "IF2612":
                volumes.append(quote.Volume)
                break  # a loop that is left takes nothing along
        batch = registered.batch(LIMIT)
        volumes += list(batch["Volume"][batch["InstrumentID"] == b"IF2612"])
    assert volumes == sorted(volumes)


def test_a_batch_is_an_array_of_the_record_and_owns_its_memory(registered):
    batch = registered.batch(LIMIT)
    assert batch.dtype == kavquote.QUOTE_DTYPE
    assert batch.dtype.itemsize == batch.strides[0] == 345
    assert batch.flags.owndata and batch.flags.writeable
    before = batch.copy()
    assert wait_until(lambda: registered.waiting > 0)
    registered.batch(LIMIT)
    assert (batch == before).all()


def test_the_dtype_lies_as_the_record_does():
    offsets = {name: field[1] for name, field in kavquote.QUOTE_DTYPE.fields.items()}
    assert (len(offsets), kavquote.QUOTE_DTYPE.itemsize) == (43, 345)
    assert offsets["InstrumentID"] == 9
    assert offsets["LastPrice"] == 80
    assert offsets["Turnover"] == 140
    assert offsets["BidPrice1"] == 217
    assert offsets["AveragePrice"] == 337


def test_a_quote_is_its_bytes(registered):
    record = registered.batch(LIMIT)[:1]
    quote = kavquote.Quote(record.tobytes())
    assert bytes(quote) == record.tobytes()
    assert pickle.loads(pickle.dumps(quote)) == quote
    assert len({quote, kavquote.Quote(bytes(quote))}) == 1
    values = quote.as_dict()
    assert list(values) == list(kavquote.QUOTE_DTYPE.names)
    for name, value in values.items():
        assert getattr(quote, name) == value
        raw = record[name][0]
        assert value == (raw.decode() if isinstance(raw, bytes) else raw)
    assert quote.InstrumentID in repr(quote)
    with pytest.raises(ValueError, match="345"):
        kavquote.Quote(b"short")


def test_bytes_that_are_no_utf_8_can_be_read():
    record = numpy.zeros(1, kavquote.QUOTE_DTYPE)
    record["InstrumentID"] = b"\xffx"
    assert kavquote.Quote(record.tobytes()).InstrumentID == "\ufffdx"
    assert list(kavquote.texts(record["InstrumentID"])) == ["\ufffdx"]
    record["InstrumentID"] = b"n" * 31  # no NUL
    assert kavquote.Quote(record.tobytes()).InstrumentID == "n" * 31


def test_times_are_milliseconds_since_midnight():
    batch = numpy.zeros(3, kavquote.QUOTE_DTYPE)
    batch["UpdateTime"][:2] = b"21:00:01", b"nonsense"
    batch["UpdateMillisec"][0] = 7
    times = kavquote.times(batch)
    assert times[0] == numpy.timedelta64((21 * 3600 + 1) * 1000 + 7, "ms")
    assert numpy.isnat(times[1:]).all()


def test_a_stream_without_quotes_is_a_timeout_and_goes_on_later(client):
    stream = client.quotes(timeout=0.05)
    with pytest.raises(kavquote.TimeoutError, match="no quote came for 0.05 s"):
        next(stream)
    with pytest.raises(kavquote.TimeoutError):
        next(client.batches(timeout=0.05))
    assert len(client.batch(timeout=0)) == 0
    client.register("IF2612", timeout=LIMIT)
    assert wait_until(lambda: client.waiting > 0)
    assert next(stream).InstrumentID == "IF2612"


def test_a_batch_has_no_more_than_asked_for(registered):
    assert wait_until(lambda: registered.waiting > 5)
    assert len(registered.batch(most=5)) == 5
    assert len(next(registered.batches(most=1))) == 1
    with pytest.raises(ValueError):
        registered.batch(most=0)


@pytest.mark.parametrize("stream", ["quotes", "batches"])
def test_closing_from_another_thread_ends_a_loop(registered, stream):
    seen = []

    def close() -> None:
        wait_until(lambda: len(seen) > 3)
        registered.close()

    closer = threading.Thread(target=close)
    closer.start()
    for item in getattr(registered, stream)(LIMIT):
        seen.append(item)
    closer.join()
    assert registered.closed
    assert len(seen) > 3


def test_closing_from_another_thread_ends_a_wait(client):
    timer = threading.Timer(0.1, client.close)
    timer.start()
    assert list(client.quotes()) == []
    timer.join()


def test_several_threads_share_the_quotes(registered):
    taken = [[], []]

    def take(into: list) -> None:
        for quote in registered.quotes(LIMIT):
            into.append(bytes(quote))

    threads = [threading.Thread(target=take, args=(into,)) for into in taken]
    for thread in threads:
        thread.start()
    assert wait_until(lambda: sum(map(len, taken)) > 200)
    registered.close()
    for thread in threads:
        thread.join(LIMIT)
    assert sum(map(len, taken)) == registered.received
    assert len(set(taken[0] + taken[1])) == registered.received


def test_what_nobody_takes_is_dropped_counted_and_told(server, caplog):
    with kavquote.Client(HOST, server.port, capacity=8) as client:
        client.login("user", "password", LIMIT)
        client.register("IF2612", timeout=LIMIT)
        assert wait_until(lambda: client.dropped >= 20)
        assert client.waiting == 8
        assert wait_until(lambda: "quotes dropped" in caplog.text)
        volumes = [client.batch(most=1)["Volume"][0] for _ in range(8)]
        assert volumes == sorted(volumes)
    received, dropped = client.received, client.dropped
    assert received >= dropped + 8
    last = [record for record in caplog.records if "quotes dropped" in record.message][-1]
    assert last.levelno == logging.WARNING
    assert f"{dropped} since the beginning" in last.message


def test_when_full_wait_drops_nothing(server):
    with kavquote.Client(HOST, server.port, capacity=8, when_full="wait") as client:
        client.login("user", "password", LIMIT)
        client.register("IF2612", timeout=LIMIT)
        assert wait_until(lambda: client.waiting == 8)
        volumes = [quote.Volume for quote, _ in zip(client.quotes(LIMIT), range(50), strict=False)]
        assert volumes == sorted(volumes)
        assert client.dropped == 0
        assert wait_until(lambda: client.waiting == 8)  # the library waits: close() ends that


def test_a_callback_gets_every_quote_on_one_thread(registered):
    seen, threads = [], set()

    def callback(quote: kavquote.Quote) -> None:
        threads.add(threading.current_thread().name)
        seen.append(quote.InstrumentID)

    registered.on_quote(callback)
    assert wait_until(lambda: len(seen) > 50)
    with pytest.raises(kavquote.Error, match="a callback takes the quotes"):
        registered.quotes()
    registered.on_quote(None)
    count = len(seen)
    assert wait_until(lambda: all_are_accounted_for(registered, count))
    assert threads == {"kavquote-callback"}
    assert len(registered.batch(LIMIT)) > 0
    assert len(seen) == count


def all_are_accounted_for(client: kavquote.Client, taken: int) -> bool:
    before = client.received
    known = taken + client.waiting + client.dropped
    return known == before == client.received


def test_what_was_taken_for_a_callback_that_is_to_end_is_delivered(registered):
    taking, ending = threading.Event(), threading.Event()

    def take(timeout: float) -> str:
        taking.set()
        assert ending.wait(LIMIT)
        return "a quote"

    seen = []
    deliverer = Deliverer(registered._native, take, seen.append)
    assert taking.wait(LIMIT)
    deliverer.ask_to_stop()
    ending.set()
    deliverer.stop()
    assert seen == ["a quote"]


def test_a_callback_of_batches_gets_arrays(registered):
    seen = []
    registered.on_batch(seen.append)
    assert wait_until(lambda: sum(map(len, seen)) > 50)
    registered.close()
    assert all(batch.dtype == kavquote.QUOTE_DTYPE and len(batch) for batch in seen)


@pytest.mark.parametrize("error", [RuntimeError, SystemExit, KeyboardInterrupt, GeneratorExit])
def test_a_callback_that_raises_goes_to_the_log_and_is_called_again(registered, caplog, error):
    calls = []

    def callback(quote: kavquote.Quote) -> None:
        calls.append(quote)
        raise error("spoiled")

    registered.on_quote(callback)
    assert wait_until(lambda: len(calls) > 3)
    registered.close()
    assert f"{error.__name__}: spoiled" in caplog.text
    assert registered.closed


def test_a_callback_may_close_the_client(registered):
    closed = []

    def callback(_: kavquote.Quote) -> None:
        registered.close()
        closed.append(registered.closed)

    registered.on_quote(callback)
    assert wait_until(lambda: closed)
    assert closed == [True]


def callback_threads() -> list[threading.Thread]:
    return [thread for thread in threading.enumerate() if thread.name == "kavquote-callback"]


def test_callbacks_set_on_several_threads_at_once_leave_none_behind(registered):
    together = threading.Barrier(4)

    def set_some() -> None:
        for _ in range(10):
            together.wait(LIMIT)
            registered.on_quote(lambda quote: None)

    setters = [threading.Thread(target=set_some) for _ in range(together.parties)]
    for setter in setters:
        setter.start()
    for setter in setters:
        setter.join(LIMIT)
    registered.on_quote(None)
    assert callback_threads() == []


def test_a_callback_set_while_the_client_closes_is_refused(registered, monkeypatch):
    stopping, raised, made = threading.Event(), [], []

    class Late(Deliverer):
        def __init__(self, *arguments) -> None:
            made.append(registered.closed)
            super().__init__(*arguments)

        def stop(self) -> None:
            super().stop()
            if threading.current_thread() is setter:
                stopping.set()
                wait_until(lambda: registered.closed)

    def set_another() -> None:
        try:
            registered.on_quote(print)
        except kavquote.ClosedError as error:
            raised.append(error)

    monkeypatch.setattr(kavquote.client, "Deliverer", Late)
    setter = threading.Thread(target=set_another)
    registered.on_quote(lambda quote: None)
    setter.start()
    assert stopping.wait(LIMIT)
    registered.close()
    setter.join(LIMIT)
    assert made == [False]
    assert len(raised) == 1


def test_a_callback_that_is_replaced_on_two_threads_is_waited_for_on_both(registered):
    inside, leave, returned = threading.Event(), threading.Event(), []

    def first(_: kavquote.Quote) -> None:
        inside.set()
        leave.wait(LIMIT)

    def end() -> None:
        registered.on_quote(None)
        returned.append(leave.is_set())

    registered.on_quote(first)
    assert inside.wait(LIMIT)
    enders = [threading.Thread(target=end) for _ in range(2)]
    for ender in enders:
        ender.start()
    wait_until(lambda: returned, 0.2)  # nothing to see but that none returns
    leave.set()
    for ender in enders:
        ender.join(LIMIT)
    assert returned == [True, True]


@pytest.mark.parametrize("change", ["close", "replace", "end"])
def test_a_callback_may_change_what_another_thread_changes(registered, change):
    inside, changing, done = threading.Event(), threading.Event(), []

    def callback(_: kavquote.Quote) -> None:
        inside.set()
        assert changing.wait(LIMIT)
        try:
            if change == "close":
                registered.close()
            else:
                registered.on_quote(print if change == "replace" else None)
        finally:
            done.append(change)

    registered.on_quote(callback)
    assert inside.wait(LIMIT)
    closer = threading.Thread(target=registered.close)
    closer.start()
    changing.set()
    closer.join(LIMIT / 4)  # well before it gives a callback up
    assert not closer.is_alive()
    assert wait_until(lambda: done)
    assert wait_until(lambda: callback_threads() == [])


def test_async_for_takes_quotes_while_other_tasks_run(registered):
    async def take() -> list[str]:
        return [quote.InstrumentID async for quote, _ in limited(registered.quotes(LIMIT), 100)]

    async def limited(stream, count):
        taken = 0
        async for item in stream:
            yield item, taken
            taken += 1
            if taken == count:
                return

    async def tick(ticks: list[int]) -> None:
        while True:
            ticks.append(1)
            await asyncio.sleep(0.001)

    async def both() -> tuple[list[str], int]:
        ticks: list[int] = []
        ticker = asyncio.create_task(tick(ticks))
        names = await take()
        ticker.cancel()
        return names, len(ticks)

    names, ticks = asyncio.run(both())
    assert set(names) == {"IF2612", "Au(T+D)"}
    assert len(names) == 100
    assert ticks > 10


def test_async_waits_end_by_timeout_cancellation_and_close(client):
    async def waits() -> None:
        with pytest.raises(kavquote.TimeoutError):
            await anext(client.quotes(timeout=0.05))
        with pytest.raises(asyncio.TimeoutError):
            await asyncio.wait_for(anext(client.batches()), 0.05)
        two = [asyncio.create_task(collect()) for _ in range(2)]
        await asyncio.sleep(0.05)
        client.close()
        assert await asyncio.gather(*two) == [[], []]

    async def collect() -> list[kavquote.Quote]:
        return [quote async for quote in client]

    asyncio.run(waits())
