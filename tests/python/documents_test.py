"""What stubs, docstrings and the page in docs/ say is true."""

import ast
import doctest
import inspect
import os
import pathlib
import re
import subprocess
import sys

import kavquote
import numpy
import pytest
from conftest import HOST, LIMIT

STUB = pathlib.Path(kavquote.__file__).with_name("_native.pyi")


def members(tree: ast.ClassDef) -> set[str]:
    names = {node.name for node in tree.body if isinstance(node, ast.FunctionDef)}
    return names | {node.target.id for node in tree.body if isinstance(node, ast.AnnAssign)}


def is_told(name: str) -> bool:
    return not name.startswith("_") or name in ("__init__", "__bytes__", "__eq__", "__hash__")


def test_the_stub_names_what_is_there_and_nothing_else():
    tree = ast.parse(STUB.read_text())
    classes = {node.name: node for node in tree.body if isinstance(node, ast.ClassDef)}
    native = kavquote._native
    assert set(classes) == {name for name, value in vars(native).items() if inspect.isclass(value)}
    for name, node in classes.items():
        if name == "Registration":
            assert members(node) == set(native.Registration.__members__)
            continue
        there = {member for member in vars(getattr(native, name)) if is_told(member)}
        constructed = "__init__" in members(node)
        assert members(node) == {one for one in there if constructed or one != "__init__"}


def test_everything_public_has_a_docstring():
    for name in kavquote.__all__:
        if name in ("QUOTE_DTYPE", "Batch"):
            continue
        thing = getattr(kavquote, name)
        assert inspect.getdoc(thing), name
        for member, value in vars(thing).items() if inspect.isclass(thing) else ():
            if not member.startswith("_") and (callable(value) or isinstance(value, property)):
                assert inspect.getdoc(value), f"{name}.{member}"


@pytest.mark.parametrize(
    "module",
    [kavquote, kavquote.client, kavquote.records, kavquote._native],
    ids=lambda m: m.__name__,
)
def test_the_examples_of_docstrings_work(server, module):
    names = {"kavquote": kavquote, "numpy": numpy, "host": HOST, "port": server.port}
    finder = doctest.DocTestFinder(exclude_empty=True)
    runner = doctest.DocTestRunner(optionflags=doctest.ELLIPSIS)
    for example in finder.find(module, extraglobs=names):
        runner.run(example)
    assert runner.tries > 0
    assert runner.failures == 0


PAGE = pathlib.Path(__file__).parents[2] / "docs" / "python.md"


def python_blocks() -> str:
    return "\n".join(
        re.findall(r"^```python\n(.*?)^```$", PAGE.read_text(), re.MULTILINE | re.DOTALL)
    )


def test_the_page_draws_its_picture(serve, tmp_path):
    server = serve("--speed", "0")
    folder = pathlib.Path(os.environ.get("KAV_PYTHON_PICTURE", tmp_path))
    names: dict = {"host": HOST, "port": server.port, "folder": folder}
    exec(compile(python_blocks(), str(PAGE), "exec"), names)
    assert len(names["day"]) == names["wanted"]
    assert (names["spread"] > 0).all()
    pixels = names["plt"].imread(folder / "spread.png")
    assert pixels.shape[:2] == (500, 900)
    assert pixels[:250].std() > 0.05 and pixels[250:].std() > 0.05


def test_the_page_prints_quotes_in_five_lines(server):
    program = re.search(r"^python3 -c '\n(.*?)^'$", PAGE.read_text(), re.MULTILINE | re.DOTALL)[1]
    assert len(program.splitlines()) == 5
    assert "9000" in program
    ended = subprocess.run(
        [sys.executable, "-c", program.replace("9000", str(server.port))],
        capture_output=True,
        text=True,
        timeout=LIMIT,
        check=False,
    )
    assert (ended.returncode, ended.stderr) == (0, "")
    lines = ended.stdout.splitlines()
    assert len(lines) == 3
    assert all(line.startswith("<Quote IF2612 ") for line in lines)


def test_the_page_names_every_error():
    errors = {name for name in kavquote.__all__ if name.endswith("Error")} - {"Error"}
    assert errors <= set(re.findall(r"`(\w+Error)`", PAGE.read_text()))
