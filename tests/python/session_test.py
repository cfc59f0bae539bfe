"""Connecting, logging in, registering, and the end of it."""

import logging
import os
import pickle
import signal
import socket
import threading
import time
import traceback

import kavquote
import pytest
from conftest import HOST, LIMIT, wait_until


def free_port() -> int:
    with socket.socket() as probe:
        probe.bind((HOST, 0))
        return int(probe.getsockname()[1])


def test_symbols_are_names_and_types(client):
    symbols = client.symbols()
    assert symbols["IF2612"] == "1"
    assert symbols["Au(T+D)"] == "2"
    assert len(symbols) == 25


def test_a_host_may_be_a_name(server):
    with kavquote.Client("localhost", server.port) as client:
        client.login("user", "password", LIMIT)
        assert client.state == "live"


def test_a_port_where_nobody_listens_is_a_connect_error():
    with pytest.raises(kavquote.ConnectError, match="refused or unreachable") as raised:
        kavquote.Client(HOST, free_port())
    assert isinstance(raised.value, ConnectionError)
    assert isinstance(raised.value, kavquote.Error)


def test_a_name_without_an_address_is_a_connect_error():
    with pytest.raises(kavquote.ConnectError, match="no IPv4 address"):
        kavquote.Client("nobody.invalid", 9000)


def test_a_server_that_does_not_take_the_connection_is_a_timeout():
    with socket.socket() as deaf, socket.socket() as first, socket.socket() as second:
        deaf.bind((HOST, 0))
        deaf.listen(0)
        for filler in (first, second):  # the queue of a listener that accepts nobody is full then
            filler.setblocking(False)
            filler.connect_ex(deaf.getsockname())
        before = time.monotonic()
        with pytest.raises(kavquote.TimeoutError, match="did not answer within 0.2 s") as raised:
            kavquote.Client(HOST, deaf.getsockname()[1], timeout=0.2)
        assert time.monotonic() - before < LIMIT / 2
        assert isinstance(raised.value, TimeoutError)


def test_wrong_arguments_are_value_errors(server):
    for arguments in ({"capacity": 0}, {"when_full": "explode"}):
        with pytest.raises(ValueError):
            kavquote.Client(HOST, server.port, **arguments)
    with pytest.raises(ValueError, match="65536"):
        kavquote.Client(HOST, 65536)


def test_a_refused_login_tells_the_reason_and_closes(serve):
    server = serve("--fault-login", "refuse", "--fault-login-reason", "no such user")
    with kavquote.Client(HOST, server.port) as client:
        with pytest.raises(kavquote.LoginError, match="refused the login: no such user") as raised:
            client.login("user", "password", LIMIT)
        assert raised.value.reason == "no such user"
        assert client.closed


def test_a_wrong_password_is_refused_and_the_right_one_is_not(serve):
    server = serve("--user", "trader", "--password", "secret")
    with kavquote.Client(HOST, server.port) as client, pytest.raises(kavquote.LoginError):
        client.login("trader", "guess", LIMIT)
    with kavquote.Client(HOST, server.port) as client:
        client.login("trader", "secret", LIMIT)
        assert client.state == "live"


def test_a_login_without_an_answer_is_a_timeout(serve):
    server = serve("--fault-login", "ignore")
    with kavquote.Client(HOST, server.port) as client:
        with pytest.raises(kavquote.TimeoutError, match="did not answer the login within 0.2 s"):
            client.login("user", "password", 0.2)


def test_a_login_without_a_symbol_list_is_a_login_error(serve):
    server = serve("--fault-list", "ignore")
    with kavquote.Client(HOST, server.port) as client:
        with pytest.raises(kavquote.LoginError, match="sent no symbol list"):
            client.login("user", "password", LIMIT)


def test_a_server_that_hangs_up_before_the_login_is_a_login_error(serve):
    server = serve("--fault-accept", "close")
    with kavquote.Client(HOST, server.port) as client:
        with pytest.raises(kavquote.LoginError, match="closed the connection"):
            client.login("user", "password", LIMIT)


def test_texts_that_are_too_long_for_a_login_leave_the_client_usable(server):
    with kavquote.Client(HOST, server.port) as client:
        with pytest.raises(ValueError, match="a user name has at most 15 bytes"):
            client.login("u" * 16, "password")
        with pytest.raises(ValueError, match="a password has at most 32 bytes"):
            client.login("user", "p" * 33)
        client.login("u" * 15, "p" * 32, LIMIT)


@pytest.mark.parametrize(
    "user, password, error",
    [
        (12345, "s3cretPW", TypeError),
        ("user", b"s3cretPW", TypeError),
        ("user", "s3cretPW\udc80", ValueError),
        ("s3cret\udc80", "s3cretPW", ValueError),
    ],
)
def test_a_login_with_what_is_no_text_does_not_show_the_password(server, user, password, error):
    with kavquote.Client(HOST, server.port) as client:
        with pytest.raises(error, match="a user name and a password are") as raised:
            client.login(user, password)
        assert "s3cret" not in "".join(traceback.format_exception(raised.value, limit=0))
        assert "12345" not in str(raised.value)
        client.login("user", "password", LIMIT)


def test_a_second_login_is_refused(client):
    with pytest.raises(kavquote.Error, match="logged in already"):
        client.login("user", "password")


def test_registering_before_the_login_is_an_error(server):
    with kavquote.Client(HOST, server.port) as client:
        with pytest.raises(kavquote.Error, match="log in first"):
            client.register("IF2612")


def test_a_symbol_that_is_not_listed_registers_none(client):
    with pytest.raises(kavquote.RegistrationError, match="does not list nonsense") as raised:
        client.register("IF2612", "nonsense")
    assert raised.value.symbols == ("nonsense",)
    assert len(client.batch(timeout=0.1)) == 0


def test_a_symbol_that_the_server_refuses_is_named(serve):
    server = serve("--fault-register", "1")
    with kavquote.Client(HOST, server.port) as client:
        client.login("user", "password", LIMIT)
        with pytest.raises(kavquote.RegistrationError, match="refused IF2612") as raised:
            client.register("IF2612", timeout=LIMIT)
        assert raised.value.symbols == ("IF2612",)


def test_a_registration_without_an_answer_is_a_timeout(serve):
    server = serve("--fault-register", "ignore")
    with kavquote.Client(HOST, server.port) as client:
        client.login("user", "password", LIMIT)
        with pytest.raises(kavquote.TimeoutError, match="did not answer for IF2612"):
            client.register("IF2612", timeout=0.2)


def test_an_answer_behind_quotes_that_nobody_takes_is_told(server):
    with kavquote.Client(HOST, server.port, capacity=8, when_full="wait") as client:
        client.login("user", "password", LIMIT)
        client.register("IF2612", timeout=LIMIT)
        assert wait_until(lambda: client.waiting == 8)
        told = "8 quotes wait to be taken, and the answer behind them"
        with pytest.raises(kavquote.TimeoutError, match=told):
            assert wait_until(lambda: not client.symbols(0.2))  # until the library waits
        with pytest.raises(kavquote.TimeoutError, match=f"for rb2705 .*{told}"):
            client.register("rb2705", timeout=0.2)
        with pytest.raises(kavquote.TimeoutError, match=f"for IF2612 .*{told}"):
            client.unregister("IF2612", timeout=0.2)


def test_an_unregistered_symbol_sends_no_more_quotes(client):
    client.register("IF2612", "rb2705", "Au(T+D)", timeout=LIMIT)
    client.register("IF2612", timeout=LIMIT)  # a second time is fine
    client.unregister("IF2612", "Au(T+D)", timeout=LIMIT)
    while client.waiting:
        client.batch()
    later = [quote.InstrumentID for quote, _ in zip(client.quotes(LIMIT), range(20), strict=False)]
    assert set(later) == {"rb2705"}


def test_use_after_close_is_a_closed_error(client):
    client.close()
    client.close()
    assert client.closed
    for use in (
        client.quotes,
        client.batches,
        client.batch,
        client.symbols,
        lambda: client.register("IF2612"),
        lambda: client.unregister("IF2612"),
        lambda: client.login("user", "password"),
        lambda: client.on_quote(print),
    ):
        with pytest.raises(kavquote.ClosedError):
            use()
    assert client.received == 0
    assert "closed" in repr(client)


def test_log_lines_go_to_logging_by_level(serve, caplog):
    caplog.set_level(logging.DEBUG, logger="kavquote")
    server = serve("--fault-login", "refuse")
    with kavquote.Client(HOST, server.port) as client, pytest.raises(kavquote.LoginError):
        client.login("user", "password", LIMIT)
    lines = {(record.name, record.levelno, record.message[:26]) for record in caplog.records}
    assert ("kavquote", logging.ERROR, "[QuoteClient] login failed") in lines
    assert any(record.levelno == logging.DEBUG for record in caplog.records)


def test_a_lost_connection_is_mended_and_told(serve):
    # 28 messages are login and list, so that the loss comes after the registration.
    loss = ("--fault-loss", "reset", "--fault-after-messages", "60", "--fault-times", "1")
    server = serve("--rate", "100", *loss)
    with kavquote.Client(HOST, server.port) as client:
        client.login("user", "password", LIMIT)
        client.register("IF2612", timeout=LIMIT)
        assert wait_until(lambda: client.reconnections == 1)
        before = client.received
        assert wait_until(lambda: client.received > before)
        assert client.state == "live"


def test_a_server_that_is_gone_leaves_the_client_reconnecting(server, client):
    assert client.state == "live"
    server.end()
    assert wait_until(lambda: client.state == "reconnecting")
    with pytest.raises(kavquote.TimeoutError):
        next(client.quotes(timeout=0.05))


def test_a_session_that_is_over_ends_streams_with_an_error(serve):
    server = serve()
    with kavquote.Client(HOST, server.port) as client:
        server.end()
        with pytest.raises(kavquote.SessionOverError, match="closed the connection before a login"):
            next(client.quotes(LIMIT))
        with pytest.raises(kavquote.SessionOverError):
            client.batch(timeout=LIMIT)
        assert client.state == "over"


def test_a_client_that_nobody_keeps_closes_with_a_warning(server):
    client = kavquote.Client(HOST, server.port)
    with pytest.warns(ResourceWarning, match="was not closed"):
        del client
    assert wait_until(lambda: not any(t.name == "kavquote-log" for t in threading.enumerate()))


def test_ctrl_c_ends_a_wait(client):
    timer = threading.Timer(0.2, os.kill, (os.getpid(), signal.SIGINT))
    timer.start()
    with pytest.raises(KeyboardInterrupt):
        client.batch(timeout=LIMIT)
    timer.join()
    client.register("IF2612", timeout=LIMIT)
    assert len(client.batch(timeout=LIMIT)) > 0


@pytest.mark.parametrize(
    "error",
    [
        kavquote.Error("text"),
        kavquote.ConnectError("text"),
        kavquote.LoginError("text", "reason"),
        kavquote.RegistrationError("text", ["IF2612", "rb2705"]),
        kavquote.SessionOverError("text"),
        kavquote.TimeoutError("text"),
        kavquote.ClosedError("text"),
        kavquote.ForkedError(),
    ],
    ids=lambda error: type(error).__name__,
)
def test_an_error_is_the_same_in_another_process(error):
    copy = pickle.loads(pickle.dumps(error))
    assert type(copy) is type(error)
    assert (copy.args, vars(copy)) == (error.args, vars(error))
