"""What `cmake --install` lays out works without the build folder."""

import os
import subprocess
import sys

from conftest import HOST, LIMIT

PROGRAM = f"""
import itertools, kavquote, sys
with kavquote.Client("{HOST}", int(sys.argv[1])) as client:
    client.login("user", "password")
    client.register("IF2612")
    print(next(client.quotes(10)).InstrumentID, kavquote.__file__, kavquote._native.__file__)
    print(*[line.split()[-1] for line in open("/proc/self/maps") if "libkavquote" in line])
"""


def test_the_installed_package_takes_quotes_with_the_installed_library(server, tmp_path):
    install = [os.environ["KAV_CMAKE"], "--install", os.environ["KAV_BUILD"], "--prefix", tmp_path]
    subprocess.run(install, check=True, capture_output=True, timeout=LIMIT * 2)
    ended = subprocess.run(
        [sys.executable, "-c", PROGRAM, str(server.port)],
        capture_output=True,
        text=True,
        timeout=LIMIT,
        check=False,
        env=os.environ | {"PYTHONPATH": str(tmp_path / "lib/python3/dist-packages")},
    )
    assert (ended.returncode, ended.stderr) == (0, "")
    symbol, *files = ended.stdout.split()
    assert symbol == "IF2612"
    assert len(files) > 2
    assert all(file.startswith(f"{tmp_path}/") for file in files)


def test_the_component_is_the_package_alone(tmp_path):
    install = [os.environ["KAV_CMAKE"], "--install", os.environ["KAV_BUILD"], "--prefix", tmp_path]
    subprocess.run([*install, "--component", "python"], check=True, capture_output=True)
    files = {path.relative_to(tmp_path) for path in tmp_path.rglob("*") if path.is_file()}
    assert {str(file.parent) for file in files} == {"lib/python3/dist-packages/kavquote"}
    names = {file.name for file in files}
    assert {"__init__.py", "_native.pyi", "client.py", "py.typed"} < names
    assert any(name.startswith("_native.cpython-311") for name in names)
