"""Command-line runner: `python -m npucpu list|run ...`.

Every failure ends in one line on stderr ("npucpu: error: ...") and a
non-zero exit: 2 for bad arguments, 1 for an operator that failed or a
library that could not be used. The library's own error lines (stderr) and
log lines (stdout) appear as the library prints them.
"""
import argparse
import ctypes
import os
import re
import sys
import time

import numpy as np

from . import _lib
from .dtypes import DtypeError
from .elfsyms import ElfError
from .runner import ATTR_TYPES, Attr, Input, OpError, run
from .version import version

EXIT_OP_FAILED, EXIT_USAGE = 1, 2

USAGE = """\
npucpu --version
       npucpu list [--library PATH]
       npucpu run OP [-i INPUT.npy|null]... [-a NAME[:TYPE]=VALUE]... [-o OUTDIR]
                  [-n OUTPUTS] [--force] [--log-level N] [--library PATH]"""


class UsageError(Exception):
    pass


class _VersionAction(argparse.Action):
    """--version: the version of the library that would be loaded
    ($NPUCPU_LIBRARY, the build tree, then the installed location)."""

    def __init__(self, option_strings, dest, **kwargs):
        super().__init__(option_strings, dest, nargs=0, default=argparse.SUPPRESS,
                         help="print the library's version and exit")

    def __call__(self, parser, namespace, values, option_string=None):
        print("npucpu %s" % version())
        parser.exit()


class _Parser(argparse.ArgumentParser):
    def error(self, message):
        raise UsageError(message)


def _parser():
    p = _Parser(prog="npucpu", usage=USAGE,
                description="Run operators of libnpucpu.so on .npy files.")
    p.add_argument("--version", action=_VersionAction)
    sub = p.add_subparsers(dest="command", metavar="{list,run}")
    sub.required = True
    common = _Parser(add_help=False)
    common.add_argument("--library", metavar="PATH",
                        help="libnpucpu.so to load (default: $NPUCPU_LIBRARY, the build "
                             "tree, then /usr/local/lib and /usr/lib)")
    sub.add_parser("list", parents=[common], help="print the operators the library exports")
    r = sub.add_parser("run", parents=[common], help="run one operator on .npy inputs",
                       formatter_class=argparse.RawDescriptionHelpFormatter,
                       epilog="Attribute types are inferred (1 -> int, 1.5 -> float, 1,2 -> "
                              "ints, 0.5,1 -> floats, else str) unless given as "
                              "NAME:int|ints|float|floats|str=VALUE. An input 'null' is a "
                              "null buffer (write ./null for a file of that name).")
    r.add_argument("op")
    r.add_argument("-i", "--input", action="append", default=[], metavar="FILE",
                   help=".npy input, in order; 'null' for a null buffer")
    r.add_argument("-a", "--attr", action="append", default=[], metavar="NAME[:TYPE]=VALUE")
    r.add_argument("-o", "--outdir", help="directory for output<k>.npy (created if missing)")
    r.add_argument("-n", "--outputs", type=int, default=1, help="number of outputs (default 1)")
    r.add_argument("--force", action="store_true",
                   help="call compute even when check_supported answers 0")
    r.add_argument("--log-level", type=int, metavar="N",
                   help="library log level (0 Trace .. 5 Fatal)")
    return p


_INT = re.compile(r"^[+-]?\d+$")


def _is_float_text(s):
    try:
        float(s)
        return True
    except ValueError:
        return False


def _parse_scalar(kind, text, name):
    text = text.strip()
    try:
        if kind == "int":
            if not _INT.match(text):
                raise ValueError
            return int(text)
        return float(text)
    except ValueError:
        raise UsageError("attribute '%s': %r is not %s" % (
            name, text, "an int" if kind == "int" else "a float")) from None


def parse_attr(text):
    """(name, value) from NAME[:TYPE]=VALUE."""
    if "=" not in text:
        raise UsageError("attribute %r: expected NAME[:TYPE]=VALUE" % text)
    key, value = text.split("=", 1)
    name, _, kind = key.partition(":")
    name = name.strip()
    if not name:
        raise UsageError("attribute %r: empty name" % text)
    if len(name.encode("utf-8")) >= _lib.ATTR_NAME_LEN:
        raise UsageError("attribute '%s': name longer than %d bytes"
                         % (name, _lib.ATTR_NAME_LEN - 1))
    kind = kind.strip()
    if kind and kind not in ATTR_TYPES:
        raise UsageError("attribute '%s': unknown type %r (use int, ints, float, floats or str)"
                         % (name, kind))
    if not kind:
        kind = _infer_kind(value)
    if kind in ("str", "string"):
        return name, Attr(value, "str")
    if kind in ("int", "float"):
        return name, Attr(_parse_scalar(kind, value, name), kind)
    body = value.strip()
    if body.startswith("[") and body.endswith("]"):
        body = body[1:-1]
    items = [s for s in body.split(",") if s.strip()] if body.strip() else []
    scalar = "int" if kind == "ints" else "float"
    return name, Attr([_parse_scalar(scalar, s, name) for s in items], kind)


def _infer_kind(value):
    v = value.strip()
    if _INT.match(v):
        return "int"
    if _is_float_text(v):
        return "float"
    body = v[1:-1] if v.startswith("[") and v.endswith("]") else v
    if "," in body or v != body:
        items = [s.strip() for s in body.split(",") if s.strip()]
        if all(_INT.match(s) for s in items):
            return "ints"
        if all(_is_float_text(s) for s in items):
            return "floats"
    return "str"


def _load_input(path):
    if path == "null":
        return Input(None)
    if not os.path.isfile(path):
        raise UsageError("input %s: no such file" % path)
    try:
        return Input(np.load(path, allow_pickle=False))
    except (ValueError, OSError, EOFError) as e:
        raise UsageError("input %s: not a readable .npy file (%s)"
                         % (path, str(e).splitlines()[0] if str(e) else type(e).__name__)) from None


def _flush_c_stdio():
    # The library's log lines sit in C's stdout buffer; emit them before ours.
    try:
        ctypes.CDLL(None).fflush(None)
    except (OSError, AttributeError):
        pass


def _describe(arr):
    return "shape %s %s" % (tuple(arr.shape), arr.dtype)


def cmd_list(args):
    lib = _lib.load(args.library)
    for op in lib.operators():
        print(op)
    return 0


def cmd_run(args):
    if args.outputs < 0:
        raise UsageError("-n: the number of outputs cannot be negative")
    lib = _lib.load(args.library)
    if not lib.has_operator(args.op):
        raise UsageError("operator '%s' is not exported by %s (see 'npucpu list')"
                         % (args.op, lib.path))
    inputs = [_load_input(p) for p in args.input]
    attrs = dict(parse_attr(a) for a in args.attr)
    if args.log_level is not None:
        lib.set_log_level(args.log_level)
    for k, (path, desc) in enumerate(zip(args.input, inputs)):
        what = "null buffer" if desc.buffer is None else \
            "shape %s %s" % (desc.shape, desc.buffer.dtype)
        print("input %d: %s (%s)" % (k, path, what))
    for name, a in attrs.items():
        print("attr %s: %s %r" % (name, a.type, a.value))
    sys.stdout.flush()
    t = time.perf_counter()
    result = run(args.op, inputs, attrs, args.outputs, raw=True, force=args.force, library=lib)
    total = time.perf_counter() - t
    _flush_c_stdio()
    failure = None
    if "infershape" in result.statuses:
        st = result.statuses["infershape"]
        print("infershape: 0x%08x (%s)" % (st, _lib.status_name(st)))
        if st != _lib.NPU_OK:
            failure = OpError("infershape", st, op=args.op)
    if result.supported is not None:
        print("check_supported: %d" % int(result.supported))
        if not result.supported and not args.force:
            failure = OpError("check_supported", 0, "not supported", op=args.op)
    if "compute" in result.statuses:
        st = result.statuses["compute"]
        print("compute: 0x%08x (%s)" % (st, _lib.status_name(st)))
        if st != _lib.NPU_OK:
            failure = OpError("compute", st, op=args.op)
    if args.outdir and failure is None:
        os.makedirs(args.outdir, exist_ok=True)
    for k, out in enumerate(result.outputs):
        line = "output %d: %s" % (k, _describe(out))
        row_bytes = (out.shape[-1] if out.ndim else 1) * out.itemsize
        if result.wstrides[k] and result.wstrides[k] != row_bytes:
            line += " wstride %d" % result.wstrides[k]
        if args.outdir and failure is None:
            path = os.path.join(args.outdir, "output%d.npy" % k)
            np.save(path, out)
            line += " -> %s" % path
        print(line)
        if not args.outdir and failure is None:
            print(np.array2string(out, threshold=64))
    times = ", ".join("%s %.3f ms" % (s, v * 1e3) for s, v in result.times.items())
    print("time: %s (total %.3f ms)" % (times, total * 1e3))
    sys.stdout.flush()
    if failure is not None:
        raise failure
    return 0


def main(argv=None):
    try:
        args = _parser().parse_args(argv)
        return cmd_list(args) if args.command == "list" else cmd_run(args)
    except UsageError as e:
        print("npucpu: error: %s" % e, file=sys.stderr)
        return EXIT_USAGE
    except SystemExit as e:  # --help
        return e.code if isinstance(e.code, int) else 0
    except BrokenPipeError:
        # The reader went away (`npucpu list | head`): stop quietly, and keep
        # Python from reporting the failed flush of stdout at exit.
        devnull = os.open(os.devnull, os.O_WRONLY)
        os.dup2(devnull, sys.stdout.fileno())
        return 0
    except OpError as e:
        print("npucpu: error: %s" % e, file=sys.stderr)
        return EXIT_OP_FAILED
    except (_lib.LibraryNotFound, ElfError, DtypeError, ValueError, TypeError, OSError,
            LookupError) as e:
        text = str(e).splitlines()[0] if str(e) else type(e).__name__
        print("npucpu: error: %s" % text, file=sys.stderr)
        return EXIT_OP_FAILED
    except KeyboardInterrupt:
        print("npucpu: error: interrupted", file=sys.stderr)
        return 130
    except Exception as e:  # never a traceback on the command line
        print("npucpu: error: %s: %s" % (type(e).__name__, e), file=sys.stderr)
        return EXIT_OP_FAILED
