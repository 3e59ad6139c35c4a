"""The ctypes binding: record layouts, library lookup, dtype and attribute
marshalling, the stages of run() and width-strided buffers."""
import ctypes
import re

import numpy as np
import pytest

import npucpu
from npucpu import runner
from npucpu.elfsyms import dynamic_symbols, operators_from_names

# sizeof/offsetof of the records as a C compiler lays out api/npucpu.h on
# x86-64 Linux (checked with a small C program against the header).
C_LAYOUT = [
    (npucpu.TensorShape, 68, {"dims": 0, "dim_num": 64}),
    (npucpu.NpuString, 24, {"data": 0, "length": 8, "external": 16}),
    (npucpu.TensorDesc, 144, {"dtype": 0, "shape": 4, "format": 72, "first_batch_buf": 80,
                              "buf": 88, "buf_len": 96, "wstride": 104, "batch_mode": 108,
                              "wstride_fixed": 112, "name": 120}),
    (npucpu.AttrRecord, 88, {"name": 0, "dtype": 64, "data": 72, "data_len": 80}),
    (npucpu.OperatorContext, 40, {"inputs": 0, "outputs": 8, "attrs": 16, "input_num": 24,
                                  "output_num": 28, "attr_num": 32}),
]


@pytest.mark.parametrize("record,size,offsets", C_LAYOUT, ids=lambda v: getattr(v, "__name__", ""))
def test_record_layout_matches_c(record, size, offsets):
    assert ctypes.sizeof(record) == size
    assert [f[0] for f in record._fields_] == list(offsets)
    assert {name: getattr(record, name).offset for name in offsets} == offsets


def test_records_read_back_what_the_library_stored(lib):
    # Values stored through the API must appear in the right fields when the
    # context record is read directly: a layout slip shows up here.
    a = np.arange(6, dtype=np.int16)
    with npucpu.Context(lib) as ctx:
        assert ctx.set_inputs_num(2) == 0
        assert ctx.set_outputs_num(1) == 0
        assert ctx.set_attrs_num(1) == 0
        assert ctx.set_input_by_index(1, 3, 1, (2, 3), a, 10, 1) == 0
        assert ctx.set_input_wstride_by_index(1, 32) == 0
        assert ctx.set_output_name_by_index(0, "hello") == 0
        assert ctx.set_attr_by_index(0, "mode", 4, b"xyz") == 0
        rec = ctx.record
        assert (rec.input_num, rec.output_num, rec.attr_num) == (2, 1, 1)
        d = rec.inputs[1]
        assert (d.dtype, d.format, d.shape.to_tuple(), d.buf_len) == (3, 1, (2, 3), 10)
        assert d.buf == d.first_batch_buf == a.ctypes.data
        assert (d.wstride, d.batch_mode, d.wstride_fixed) == (32, 1, 1)
        assert (rec.outputs[0].name.data, rec.outputs[0].name.length) == (b"hello", 6)
        at = rec.attrs[0]
        assert (at.name, at.dtype, at.data_len) == (b"mode", 4, 3)
        assert ctypes.string_at(at.data, 3) == b"xyz"
        assert ctx.get_attr_string(ctx.get_attr_by_name("mode")) == (0, b"xyz")
        assert ctx.get_input_batch_buf_by_index(1, 2) == a.ctypes.data + 20
    assert not ctx.handle  # destroyed and cleared


def test_library_lookup_order(lib, monkeypatch, tmp_path):
    monkeypatch.setenv("NPUCPU_LIBRARY", str(lib.path))
    assert npucpu.find_library() == lib.path
    assert npucpu.find_library(lib.path) == lib.path
    with pytest.raises(npucpu.LibraryNotFound):
        npucpu.find_library(tmp_path / "libnpucpu.so")
    monkeypatch.setenv("NPUCPU_LIBRARY", str(tmp_path / "missing.so"))
    with pytest.raises(npucpu.LibraryNotFound, match="NPUCPU_LIBRARY"):
        npucpu.find_library()
    # Without the variable: the build tree first, then the installed places.
    monkeypatch.delenv("NPUCPU_LIBRARY")
    order = [str(p) for p in npucpu._lib.candidate_paths()]
    assert order[0].endswith("build/release/libnpucpu.so")
    assert order[1].endswith("build/libnpucpu.so")
    assert order[2:] == ["/usr/local/lib/libnpucpu.so", "/usr/lib/libnpucpu.so"]


# ---- data types -------------------------------------------------------------------

DTYPE_CODES = [(np.float32, 0), (np.float64, 1), (np.int8, 2), (np.int16, 3), (np.int32, 4),
               (np.int64, 5), (np.uint8, 6), (np.uint16, 7), (np.uint32, 8), (np.uint64, 9),
               (np.float16, 10), (np.complex128, 11), (np.complex64, 12), (np.bool_, 19)]


def test_dtype_codes_round_trip():
    for dt, code in DTYPE_CODES:
        assert npucpu.code_of(dt) == code
        assert npucpu.dtype_of(code) == np.dtype(dt)
    assert npucpu.code_of(np.dtype(">f4")) == 0


@pytest.mark.parametrize("code", [13, 14, 18, 20, 0xFFFFFFFF])
def test_unknown_dtype_code_is_a_clear_error(code):
    with pytest.raises(npucpu.DtypeError, match="data type code %d" % code):
        npucpu.dtype_of(code)


@pytest.mark.parametrize("dt", ["U3", "M8[s]", "O", "V4"])
def test_unmapped_numpy_dtype_is_a_clear_error(dt):
    with pytest.raises(npucpu.DtypeError, match="no data type code"):
        npucpu.code_of(dt)


def test_big_endian_input_is_passed_in_native_order(lib):
    a = np.array([1.5, -2.0, 3.25], dtype=">f4")
    b = np.array([1.0, 1.0, 1.0], dtype="<f4")
    out = npucpu.run("add", [a, b], library=lib).outputs[0]
    np.testing.assert_array_equal(out, [2.5, -1.0, 4.25])


# ---- attributes --------------------------------------------------------------------

ATTR_CASES = [
    # value, type code, what the library's typed getter reads back
    (3, 0, 3),
    (-(1 << 63), 0, -(1 << 63)),
    (True, 0, 1),
    (np.int32(-7), 0, -7),
    (np.array(5), 0, 5),
    (1.5, 2, 1.5),
    (np.float64(0.1), 2, np.float32(0.1)),
    ("SAME_UPPER", 4, b"SAME_UPPER"),
    (b"ab", 4, b"ab"),
    ([1, -2, 3], 1, [1, -2, 3]),
    ((0.5, 1), 3, [0.5, 1.0]),
    (np.array([4, 5], dtype=np.int32), 1, [4, 5]),
    (np.array([0.25], dtype=np.float64), 3, [0.25]),
    ([], 1, []),
    (npucpu.Attr(2, "ints"), 1, [2]),
    (npucpu.Attr([2.0, 3.0], "ints"), 1, [2, 3]),
    (npucpu.Attr(1, "float"), 2, 1.0),
    (npucpu.Attr(1, "floats"), 3, [1.0]),
    (npucpu.Attr([], "floats"), 3, []),
    (npucpu.Attr("abcdef", "str", data_len=3), 4, b"abc"),
    (npucpu.Attr([1, 2, 3], "ints", data_len=12), 1, [1]),
]


def _read_attr(ctx, name):
    rec = ctx.get_attr_by_name(name)
    assert rec, name
    status, code = ctx.get_attr_dtype(rec)
    assert status == 0
    if code == 0:
        return code, ctx.get_attr_int(rec)
    if code == 2:
        return code, ctx.get_attr_float(rec)
    if code == 4:
        return code, ctx.get_attr_string(rec)
    size_fn, item_fn = ((ctx.get_attr_ints_size, ctx.get_attr_ints_by_index) if code == 1
                        else (ctx.get_attr_floats_size, ctx.get_attr_floats_by_index))
    status, n = size_fn(rec)
    items = [item_fn(rec, k) for k in range(n)]
    assert all(s == 0 for s, _ in items)
    return code, (status, [v for _, v in items])


def test_attributes_reach_the_library_with_their_types(lib):
    attrs = {"a%d" % k: case[0] for k, case in enumerate(ATTR_CASES)}
    with npucpu.Context(lib) as ctx:
        npucpu.describe(ctx, [np.zeros(1, np.float32)], attrs)
        for k, (value, code, expected) in enumerate(ATTR_CASES):
            got_code, (status, got) = _read_attr(ctx, "a%d" % k)
            assert (status, got_code, got) == (0, code, expected), value


@pytest.mark.parametrize("value,error", [
    (npucpu.Attr(1.5, "int"), ValueError),
    (npucpu.Attr([1, 2], "int"), ValueError),
    (npucpu.Attr([0.5], "ints"), ValueError),
    (npucpu.Attr(7, "str"), ValueError),
    (1 << 63, ValueError),
    (["a", 1], TypeError),
    (np.array(["x"]), TypeError),
    (object(), TypeError),
])
def test_unencodable_attribute_values(value, error):
    with pytest.raises(error):
        npucpu.encode_attr(value)


def test_attribute_type_must_be_known_and_name_must_fit():
    with pytest.raises(ValueError, match="unknown attribute type"):
        npucpu.Attr(1, "double")
    with npucpu.Context() as ctx, pytest.raises(ValueError, match="longer than 63"):
        npucpu.describe(ctx, [], {"n" * 64: 1})


# ---- run(): stages, statuses, errors ------------------------------------------------------

BINARY_OPS = ["add", "sub", "mul", "div"]
F32 = np.float32


def _mask(text):
    return re.sub(r"(\[E\] \[custom\] \[[a-z_]+):\d+\]", r"\1:L]", text)


@pytest.mark.parametrize("op", BINARY_OPS)
def test_wrong_input_count_fails_in_infershape(lib, op, capfd):
    for inputs in ([np.ones(2, F32)], [np.ones(2, F32)] * 3, []):
        with pytest.raises(npucpu.OpError) as err:
            npucpu.run(op, inputs, library=lib)
        e = err.value
        assert (e.stage, e.code, e.name) == ("infershape", 0xA0808027, "NPU_ERR_INPUT_NUM")
        assert str(e) == "%s_infershape returned 0xa0808027 (NPU_ERR_INPUT_NUM)" % op
        assert _mask(capfd.readouterr().err) == \
            "[E] [custom] [%s_ops_impl:L] %s only support 2 inputs \n" % (op, op)


RUN_FAILURES = [
    # inputs, stage, code, name
    ([None, np.ones(3, F32)], "compute", 0xA0808003, "NPU_ERR_INVALID_ARG"),
    ([npucpu.Input(None, shape=(3,)), np.ones(3, F32)], "compute", 0xA0808003,
     "NPU_ERR_INVALID_ARG"),
    ([np.ones(3), np.ones(3)], "check_supported", 0, "not supported"),
    ([np.ones(3, np.int32), np.ones(3, F32)], "check_supported", 0, "not supported"),
    ([np.ones(3, F32), npucpu.Input(np.ones(3, F32), code=14)], "check_supported", 0,
     "not supported"),
]


@pytest.mark.parametrize("inputs,stage,code,name", RUN_FAILURES)
def test_failing_stage_raises_op_error(lib, inputs, stage, code, name):
    with pytest.raises(npucpu.OpError) as err:
        npucpu.run("add", inputs, library=lib)
    assert (err.value.stage, err.value.code, err.value.name) == (stage, code, name)
    # raw=True reports the same without raising, and stops where a runtime would.
    r = npucpu.run("add", inputs, raw=True, library=lib)
    if stage == "compute":
        assert r.statuses == {"infershape": 0, "compute": code} and r.supported
    else:
        assert r.statuses == {"infershape": 0} and r.supported is False and r.outputs == []


def test_raw_infershape_failure_never_reaches_compute(lib):
    r = npucpu.run("add", [np.ones(2, F32)], raw=True, library=lib)
    assert r.statuses == {"infershape": 0xA0808027}
    assert r.supported is None and r.outputs == []


def test_force_computes_an_unsupported_configuration(lib):
    # add reads any buffer as 32-bit floats; int32 bits 1 and 2 are subnormals.
    a = np.array([1, 2], np.int32)
    r = npucpu.run("add", [a, a], force=True, library=lib)
    assert r.supported is False and r.statuses["compute"] == 0
    np.testing.assert_array_equal(r.outputs[0], [2, 4])


def test_unknown_operator(lib):
    for op in ("nosuch", "add; rm", ""):
        with pytest.raises(npucpu.UnknownOperator):
            npucpu.run(op, [], library=lib)


def test_rank_zero_inputs_stay_rank_zero(lib):
    r = npucpu.run("mul", [np.array(3, F32), np.array(-2, F32)], library=lib)
    assert r.outputs[0].shape == () and r.outputs[0] == -6


def test_short_output_buffer_length_through_the_context(lib):
    # A host that hands over 10 bytes for 3 floats gets two elements written.
    out = np.full(3, 7, F32)
    with npucpu.Context(lib) as ctx:
        npucpu.describe(ctx, [np.ones(3, F32), np.ones(3, F32)])
        assert ctx.infershape("add") == 0
        assert ctx.set_output_buf_by_index(0, out, 10) == 0
        assert ctx.compute("add") == 0
    np.testing.assert_array_equal(out, [2, 2, 7])


# ---- width strides ------------------------------------------------------------------------

@pytest.mark.parametrize("shape,itemsize,wstride,nbytes", [
    ((2, 3), 4, 16, 28),   # rows 16 bytes apart, the last one unpadded
    ((2, 3), 4, 12, 24),   # stride equal to the row: dense
    ((2, 3), 4, 0, 24),    # no stride reported: dense
    ((3, 5), 1, 16, 37),
    ((2, 2, 3), 4, 32, 108),
    ((3,), 4, 16, 12),     # one row
    ((), 4, 0, 4),
    ((2, 3), 4, 8, 24),    # a stride under the row never shrinks the buffer
    ((0, 3), 4, 16, 0),
])
def test_output_buffer_size(shape, itemsize, wstride, nbytes):
    assert runner.output_nbytes(shape, itemsize, wstride) == nbytes


def test_strided_rows_pack_and_unpack():
    a = np.arange(6, dtype=F32).reshape(2, 3)
    packed = runner.pack_rows(a, 16, pad_byte=0xEE)
    assert packed.nbytes == 28
    assert bytes(packed[12:16]) == b"\xee" * 4
    assert packed[16:28].view(F32).tolist() == [3, 4, 5]
    np.testing.assert_array_equal(runner.unpack_output(packed, (2, 3), F32, 16), a)
    with pytest.raises(ValueError, match="shorter than a row"):
        runner.pack_rows(a, 8)


def test_strided_input_reaches_the_context(lib):
    a = np.arange(6, dtype=F32).reshape(2, 3)
    with npucpu.Context(lib) as ctx:
        npucpu.describe(ctx, [npucpu.Input(a, wstride=16)])
        assert ctx.get_input_wstride_by_index(0) == (0, 16)
        assert ctx.get_input_buf_len_by_index(0) == (0, 28)
        assert ctx.get_input_shape_by_index(0) == (0, (2, 3))
        assert ctx.record.inputs[0].wstride_fixed == 1


def _needs(lib, op):
    if not lib.has_operator(op):
        pytest.skip("%s is not in this library" % op)


@pytest.mark.parametrize("dtype,shape,wstride", [(F32, (2, 3), 16), (np.int8, (3, 5), 16),
                                                 (F32, (2, 4), 16), (np.int16, (2, 2, 3), 16)])
def test_bubble_round_trip(lib, dtype, shape, wstride):
    _needs(lib, "add_bubble")
    _needs(lib, "remove_bubble")
    a = np.arange(np.prod(shape)).astype(dtype).reshape(shape)
    r = npucpu.run("add_bubble", [a], library=lib, out_fill=0xAB)
    assert r.wstrides == [wstride]
    np.testing.assert_array_equal(r.outputs[0], a)
    row = shape[-1] * a.itemsize
    if row != wstride:  # gap bytes are left as the host filled them
        assert bytes(r.buffers[0][row:wstride]) == b"\xab" * (wstride - row)
    back = npucpu.run("remove_bubble", [npucpu.Input(a, wstride=wstride, pad_byte=0x55)],
                      library=lib)
    np.testing.assert_array_equal(back.outputs[0], a)


# ---- exported symbols -----------------------------------------------------------------------

def test_exported_symbols_are_the_export_list(lib, root):
    listed = {line.strip() for line in (root / "api" / "exports.txt").read_text().splitlines()
              if line.strip() and not line.startswith("#")}
    assert set(dynamic_symbols(lib.path)) == listed
    assert dynamic_symbols(lib.path)["LEVEL_STR"] == "object"


def test_operators_need_all_three_entry_points(lib):
    names = ["add_infershape", "add_check_supported", "add_compute", "foo_infershape",
             "foo_compute", "_infershape", "bar_check_supported"]
    assert operators_from_names(names) == ["add"]
    assert set(BINARY_OPS) <= set(npucpu.operators(lib))
