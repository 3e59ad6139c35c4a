"""The command-line runner, through the bin/npucpu wrapper."""
import re
import subprocess

import numpy as np
import pytest

import npucpu
from npucpu.cli import UsageError, parse_attr


def _run(root, env, *args, cwd=None):
    return subprocess.run([str(root / "bin" / "npucpu"), *args], env=env, cwd=cwd,
                          capture_output=True, text=True, timeout=60)


def test_list_prints_the_exported_operators(root, cli_env, lib):
    p = _run(root, cli_env, "list")
    assert p.returncode == 0, p.stderr
    assert p.stdout.split() == npucpu.operators(lib)
    assert {"add", "sub", "mul", "div"} <= set(p.stdout.split())


def test_list_into_a_closed_pipe_stays_quiet(root, cli_env):
    # `npucpu list | head -1`: the reader leaves early; no error line, exit 0.
    p = subprocess.Popen([str(root / "bin" / "npucpu"), "list"], env=cli_env,
                         stdout=subprocess.PIPE, stderr=subprocess.PIPE)
    p.stdout.close()
    _, err = p.communicate(timeout=60)
    assert p.returncode == 0
    assert err == b""


def test_run_add_writes_the_broadcast_sum(root, cli_env, tmp_path):
    a = np.arange(6, dtype=np.float32).reshape(2, 3)
    b = np.array([10, 20, 30], dtype=np.float32)
    np.save(tmp_path / "a.npy", a)
    np.save(tmp_path / "b.npy", b)
    p = _run(root, cli_env, "run", "add", "-i", "a.npy", "-i", "b.npy", "-o", "out",
             cwd=tmp_path)
    assert p.returncode == 0, p.stderr
    out = np.load(tmp_path / "out" / "output0.npy")
    assert out.dtype == np.float32
    np.testing.assert_array_equal(out, a + b)
    for text in ("output 0: shape (2, 3) float32", "infershape: 0x00000000 (NPU_OK)",
                 "check_supported: 1", "compute: 0x00000000 (NPU_OK)", "time: "):
        assert text in p.stdout


ERRORS = [
    # arguments, exit code, the one error line (regex), library line on stderr
    (["run", "add", "-i", "a.npy"], 1,
     r"add_infershape returned 0xa0808027 \(NPU_ERR_INPUT_NUM\)",
     "[E] [custom] [add_ops_impl:"),
    (["run", "div", "-i", "null", "-i", "a.npy"], 1,
     r"div_compute returned 0xa0808003 \(NPU_ERR_INVALID_ARG\)", None),
    (["run", "add", "-i", "d.npy", "-i", "d.npy"], 1,
     r"add_check_supported answered 0 \(not supported\)", None),
    (["run", "nosuch", "-i", "a.npy"], 2, r"operator 'nosuch' is not exported", None),
    (["run", "add", "-i", "missing.npy"], 2, r"input missing.npy: no such file", None),
    (["run", "add", "-i", "junk.npy"], 2, r"input junk.npy: not a readable .npy file", None),
    (["run", "add", "-a", "alpha:int=1.5"], 2, r"attribute 'alpha': '1.5' is not an int", None),
    (["run", "add", "-a", "alpha:double=1"], 2, r"attribute 'alpha': unknown type 'double'",
     None),
    (["run", "add", "-a", "alpha"], 2, r"expected NAME\[:TYPE\]=VALUE", None),
    (["run", "add", "-n", "x"], 2, r"invalid int value", None),
    (["run"], 2, r"required: op", None),
    ([], 2, r"required", None),
    (["frobnicate"], 2, r"invalid choice", None),
    (["list", "--library", "/nonexistent/libnpucpu.so"], 1, r"library not found", None),
]


@pytest.mark.parametrize("args,code,line,lib_line", ERRORS, ids=lambda v: str(v)[:40])
def test_errors_are_one_line_without_traceback(root, cli_env, tmp_path, args, code, line,
                                               lib_line):
    np.save(tmp_path / "a.npy", np.ones(3, np.float32))
    np.save(tmp_path / "d.npy", np.ones(3, np.float64))
    (tmp_path / "junk.npy").write_text("not numpy\n")
    p = _run(root, cli_env, *args, cwd=tmp_path)
    assert p.returncode == code
    ours = [ln for ln in p.stderr.splitlines() if not ln.startswith("[E] [custom]")]
    assert len(ours) == 1, p.stderr
    assert ours[0].startswith("npucpu: error: ")
    assert re.search(line, ours[0]), ours[0]
    assert "Traceback" not in p.stderr + p.stdout
    if lib_line:
        assert lib_line in p.stderr


ATTRS = [
    ("strides=2,2", "ints", [2, 2]),
    ("pads=[0,1,0,1]", "ints", [0, 1, 0, 1]),
    ("axes=-1,", "ints", [-1]),
    ("auto_pad=NOTSET", "str", "NOTSET"),
    ("mode=", "str", ""),
    ("alpha:float=1", "float", 1.0),
    ("alpha=1", "int", 1),
    ("beta=-0.5", "float", -0.5),
    ("beta=1e-3", "float", 1e-3),
    ("scales=1,2.5", "floats", [1.0, 2.5]),
    ("k:str=1", "str", "1"),
    ("a:ints=", "ints", []),
    ("a:ints=7", "ints", [7]),
    ("a:floats=1", "floats", [1.0]),
    ("a:string=x=y", "str", "x=y"),
    ("name=a,b", "str", "a,b"),
]


@pytest.mark.parametrize("text,kind,value", ATTRS)
def test_attribute_parsing(text, kind, value):
    _, attr = parse_attr(text)
    assert (attr.type, attr.value) == (kind, value)


@pytest.mark.parametrize("text", ["a:int=x", "a:ints=1,x", "a:floats=1,,2x", "=1", "a:q=1",
                                  "n" * 64 + "=1"])
def test_bad_attribute_text(text):
    with pytest.raises(UsageError):
        parse_attr(text)
