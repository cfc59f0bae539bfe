"""Clients that are alive when their interpreter ends or forks. Each test is a process of its own."""

import subprocess
import sys

import pytest
from conftest import HOST, LIMIT

LOGGED_IN = f"""
import kavquote, os, sys, threading, time
client = kavquote.Client("{HOST}", int(sys.argv[1]))
client.login("user", "password")
client.register("IF2612")
"""


# A connection that the end interrupts is a line of the library's, and no fault.
QUIET = """
import logging
logging.getLogger("kavquote").addHandler(logging.NullHandler())
"""


def run(server, program: str) -> subprocess.CompletedProcess[str]:
    return run_alone(server, LOGGED_IN + program)


def run_alone(server, program: str) -> subprocess.CompletedProcess[str]:
    return subprocess.run(
        [sys.executable, "-X", "faulthandler", "-c", QUIET + program, str(server.port)],
        capture_output=True,
        text=True,
        timeout=LIMIT * 2,
        check=False,
    )


@pytest.mark.parametrize(
    "program",
    [
        "next(client.quotes())",
        "client.on_quote(lambda quote: None)",
        "client.on_quote(lambda quote: time.sleep(0.5)); time.sleep(0.1)",
        "client.on_quote(lambda quote: client.close()); time.sleep(0.1)",
        "threading.Thread(target=lambda: list(client.quotes()), daemon=True).start()",
        "threading.Thread(target=lambda: list(client.batches()), daemon=True).start()",
        "stream = client.quotes(); client.itself = client",
        "raise SystemExit(0)",
        "os._exit(0)",
    ],
)
def test_an_interpreter_ends_with_a_live_client(server, program):
    ended = run(server, program)
    assert (ended.returncode, ended.stderr) == (0, "")


@pytest.mark.parametrize("attempt", range(5))
def test_an_interpreter_ends_while_its_threads_make_new_clients(server, attempt):
    ended = run(
        server,
        f"""
taken = [0, 0, 0]
def work(me):
    while True:
        try:
            with kavquote.Client("{HOST}", int(sys.argv[1])) as one:
                one.login("user", "password")
                one.register("IF2612")
                for quote in one.quotes(timeout=1):
                    taken[me] += 1
        except kavquote.Error:
            pass
for me in range(len(taken)):
    threading.Thread(target=work, args=(me,), daemon=True).start()
deadline = time.monotonic() + {LIMIT}
while not all(taken) and time.monotonic() < deadline:
    time.sleep(0.01)
assert all(taken)
""",
    )
    assert (ended.returncode, ended.stderr) == (0, "")


@pytest.mark.parametrize("attempt", range(5))
def test_an_interpreter_ends_while_its_threads_close_clients(server, attempt):
    ended = run(
        server,
        f"""
closed = [0] * 3
def work(me):
    while True:
        try:
            with kavquote.Client("{HOST}", int(sys.argv[1])) as one:
                one.login("user", "password")
        except kavquote.Error:
            pass
        closed[me] += 1
for me in range(len(closed)):
    threading.Thread(target=work, args=(me,), daemon=True).start()
deadline = time.monotonic() + {LIMIT}
while min(closed) < 2 and time.monotonic() < deadline:
    time.sleep(0.01)
assert min(closed) >= 2
""",
    )
    assert (ended.returncode, ended.stderr) == (0, "")


@pytest.mark.parametrize("attempt", range(6))
def test_an_interpreter_ends_though_waiting_threads_have_their_turn_late(server, attempt):
    ended = run(
        server,
        """
def compute():
    while True:
        pass
client.unregister("IF2612")
for _ in range(30):
    threading.Thread(target=lambda: list(client.quotes()), daemon=True).start()
for _ in range(3):
    threading.Thread(target=compute, daemon=True).start()
""",
    )
    assert (ended.returncode, ended.stderr) == (0, "")


def test_no_client_is_made_once_the_interpreter_has_closed_them(server):
    ended = run_alone(
        server,
        f"""
import atexit, os, sys
def make_one_late():
    try:
        kavquote.Client("{HOST}", int(sys.argv[1]))
    except kavquote.Error as error:
        assert str(error) == "the interpreter is ending", error
        os._exit(5)
atexit.register(make_one_late)  # first registered, so called after what the package registers
import kavquote
""",
    )
    assert (ended.returncode, ended.stderr) == (5, "")


def test_an_error_ends_an_interpreter_with_its_own_status(server):
    ended = run(server, "client.on_quote(print); sys.exit(7)")
    assert ended.returncode == 7


FORKED = """
client.on_quote(lambda quote: None)
child = os.fork()
if child == 0:
    for use in (client.quotes, client.batch, client.symbols, lambda: client.received):
        try:
            use()
        except kavquote.ForkedError:
            continue
        os._exit(1)
    assert "another process" in repr(client)
    client.close()
    del client
    fresh = kavquote.Client("127.0.0.1", int(sys.argv[1]))
    fresh.login("user", "password")
    fresh.register("rb2705")
    assert next(fresh.quotes(10)).InstrumentID == "rb2705"
    sys.exit(5)
status = os.waitstatus_to_exitcode(os.waitpid(child, 0)[1])
assert status == 5, status
client.on_quote(None)
while client.waiting:
    client.batch()
assert next(client.quotes(10)).InstrumentID == "IF2612"
"""


def test_a_forked_child_makes_a_client_of_its_own_and_the_parent_goes_on(server):
    ended = run(server, FORKED)
    assert (ended.returncode, ended.stderr) == (0, "")


def test_a_stream_in_a_forked_child_is_an_error(server):
    ended = run(
        server,
        """
stream = client.quotes()
child = os.fork()
if child == 0:
    try:
        next(stream)
    except kavquote.ForkedError:
        sys.exit(5)
assert os.waitstatus_to_exitcode(os.waitpid(child, 0)[1]) == 5
""",
    )
    assert (ended.returncode, ended.stderr) == (0, "")


def test_an_async_stream_in_a_forked_child_asks_for_the_process_first(server):
    ended = run(
        server,
        """
import asyncio
class Watched:
    def __getattr__(self, name):
        os._exit(6)  # it may take a lock that nobody gives back
stream = client.quotes()
child = os.fork()
if child == 0:
    stream._native = Watched()
    try:
        asyncio.run(anext(stream))
    except kavquote.ForkedError:
        os._exit(5)
    os._exit(7)
assert os.waitstatus_to_exitcode(os.waitpid(child, 0)[1]) == 5
""",
    )
    assert (ended.returncode, ended.stderr) == (0, "")


def test_a_child_makes_a_client_though_a_thread_made_one_at_the_fork(server):
    ended = run(
        server,
        f"""
from kavquote import client as module
client.close()
inside, forking = threading.Event(), threading.Event()
make = module.Readiness
def make_slowly(native):
    inside.set()
    forking.wait(0.2)
    return make(native)
module.Readiness = make_slowly
maker = threading.Thread(target=lambda: kavquote.Client("{HOST}", int(sys.argv[1])).close())
maker.start()
assert inside.wait({LIMIT})
child = os.fork()
if child == 0:
    module.Readiness = make
    kavquote.Client("{HOST}", int(sys.argv[1])).close()
    os._exit(5)
forking.set()
assert os.waitstatus_to_exitcode(os.waitpid(child, 0)[1]) == 5
maker.join()
""",
    )
    assert (ended.returncode, ended.stderr) == (0, "")


def test_no_descriptor_and_no_thread_is_left_of_closed_clients(server):
    ended = run(
        server,
        f"""
client.close()
def counts():
    return len(os.listdir("/proc/self/fd")), len(os.listdir("/proc/self/task"))
before = counts()
for _ in range(20):
    with kavquote.Client("{HOST}", int(sys.argv[1])) as one:
        one.login("user", "password")
        one.on_quote(print)
del one, client
deadline = time.monotonic() + {LIMIT}
while counts() > before and time.monotonic() < deadline:
    time.sleep(0.01)
assert counts() <= before, (before, counts())
""",
    )
    assert (ended.returncode, ended.stderr) == (0, "")


def test_what_the_system_refuses_is_an_os_error(server):
    ended = run(
        server,
        """
import errno, resource
client.close()
resource.setrlimit(resource.RLIMIT_NOFILE, (len(os.listdir("/proc/self/fd")) - 1, 4096))
try:
    kavquote.Client("127.0.0.1", int(sys.argv[1]))
except OSError as error:
    assert error.errno == errno.EMFILE, error
    sys.exit(5)
""",
    )
    assert (ended.returncode, ended.stderr) == (5, "")
