// The bad-input table of the README, per operator: each operator's valid
// seed invocation (fuzz/corpus) is spoiled in one way at a time and run the
// way a host runs it. The outcomes are rendered as the table's rows and every
// row must appear, word for word, in the README's "Bad input" section, so the
// table cannot drift from what the library does. Also the regression tests of
// the defects the fuzzers found.
#include <gtest/gtest.h>

#include <cstring>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "../fuzz/harness.h"
#include "test_util.h"

namespace {

using npucpu_fuzz::Op;
using npucpu_fuzz::Outcome;

std::string source_root() {
    std::string here = __FILE__;
    return here.substr(0, here.rfind('/')) + "/..";
}

std::string status_name(uint32_t s) {
    switch (s) {
    case NPU_OK: return "OK";
    case NPU_ERR_INVALID_ARG: return "ARG";
    case NPU_ERR_SHAPE: return "SHAPE";
    case NPU_ERR_INPUT_NUM: return "NUM";
    case NPU_ERR_INPUT: return "INPUT";
    case NPU_ERR_UNSUPPORTED: return "UNSUP";
    case NPU_FAIL: return "FAIL";
    default: {
        char buf[16];
        std::snprintf(buf, sizeof buf, "%#x", s);
        return buf;
    }
    }
}

// "infershape/compute": "NUM" when infershape refused, "OK/ARG" when it
// passed and compute returned ARG, "OK/big" when an output would have been
// too large to allocate.
std::string cell(const Outcome &o) {
    if (o.infershape != NPU_OK) return status_name(o.infershape);
    if (!o.computed) return "OK/big";
    return "OK/" + status_name(o.compute);
}

void reset_inputs(OperatorContext *h, uint32_t k) {
    std::vector<TensorDesc> old(h->inputs, h->inputs + h->input_num);
    qv_kel_custom_set_inputs_num(h, k);
    for (uint32_t i = 0; i < k && !old.empty(); ++i) {
        const TensorDesc &d = old[i < old.size() ? i : 0];
        qv_kel_custom_set_input_by_index(h, i, d.dtype, d.format, &d.shape, d.buf, d.buf_len, 0);
    }
}

bool is_axis_name(const char *n) {
    return std::strcmp(n, "axis") == 0 || std::strcmp(n, "axes") == 0 ||
           std::strcmp(n, "perm") == 0;
}

struct Row {
    std::string op;
    std::vector<std::string> cells;
};

// Runs the probes on one seed.
Row probe(const npucpu_fuzz::CorpusCase &c) {
    auto run = [&](const npucpu_fuzz::Tamper &t) {
        Outcome o;
        npucpu_test::capture_stderr([&] {
            npucpu_test::capture_stdout([&] {
                o = npucpu_fuzz::run_case(*c.family, c.bytes.data(), c.bytes.size(), false,
                                          nullptr, t);
            });
        });
        return o;
    };
    Row row;
    const Outcome valid = run(nullptr);
    row.op = c.family->ops[valid.op].name;
    const Op &op = c.family->ops[valid.op];

    // Wrong input count: none, and one more (a copy of input 0).
    std::string none = cell(run([](const Op &, OperatorContext *h) { reset_inputs(h, 0); }));
    std::string more = cell(run([](const Op &, OperatorContext *h) {
        reset_inputs(h, h->input_num + 1);
    }));
    row.cells.push_back(none + "; " + more);

    // Null buffers, on every input the operator checks.
    if (op.null_inputs == 0) {
        row.cells.push_back("not checked");
    } else {
        row.cells.push_back(cell(run([](const Op &o, OperatorContext *h) {
            for (uint32_t i = 0; i < h->input_num && i < 8; ++i)
                if (o.null_inputs >> i & 1) h->inputs[i].buf = nullptr;
        })));
    }

    // Input 0 with a zero first dim (the buffer as before).
    row.cells.push_back(cell(run([](const Op &, OperatorContext *h) {
        TensorDesc &d = h->inputs[0];
        TensorShape s = d.shape;
        if (s.dim_num == 0) s.dim_num = 1;
        s.dims[0] = 0;
        qv_kel_custom_set_input_by_index(h, 0, d.dtype, d.format, &s, d.buf, d.buf_len, 0);
    })));

    // An axis attribute at 16 (axis, every entry of axes and perm).
    std::vector<std::vector<int64_t>> store;
    bool has_axis = false;
    std::string axis_cell = cell(run([&](const Op &, OperatorContext *h) {
        for (uint32_t i = 0; i < h->attr_num; ++i) {
            AttrRecord &a = h->attrs[i];
            if (!is_axis_name(a.name)) continue;
            has_axis = true;
            uint64_t n = a.dtype == NPU_ATTR_INTS ? a.data_len / 8 : 1;
            store.emplace_back(n ? n : 1, 16);
            a.data = store.back().data();
            a.data_len = a.dtype == NPU_ATTR_INTS ? 8 * store.back().size() : 8;
        }
    }));
    row.cells.push_back(has_axis ? axis_cell : "no axis attribute");

    // Every attribute of another type: int <-> float, ints <-> floats,
    // string -> int.
    if (c.bytes.size() > 3 && c.bytes[3] % 10 == 0) {
        row.cells.push_back("no attributes");
    } else {
        row.cells.push_back(cell(run([](const Op &, OperatorContext *h) {
            static const uint32_t other[5] = {NPU_ATTR_FLOAT, NPU_ATTR_FLOATS, NPU_ATTR_INT,
                                              NPU_ATTR_INTS, NPU_ATTR_INT};
            for (uint32_t i = 0; i < h->attr_num; ++i)
                if (h->attrs[i].dtype < 5) h->attrs[i].dtype = other[h->attrs[i].dtype];
        })));
    }

    // Input 0 declared float16, a type no operator supports (the buffer as
    // before, so it still covers the shape).
    Outcome f16 = run([](const Op &, OperatorContext *h) { h->inputs[0].dtype = NPU_DTYPE_FLOAT16; });
    row.cells.push_back("supported " + std::to_string(f16.check_supported) + ", " + cell(f16));
    return row;
}

std::string render(const Row &r) {
    std::string s = "| `" + r.op + "` |";
    for (const auto &c : r.cells) s += " " + c + " |";
    return s;
}

std::string readme_section() {
    std::ifstream in(source_root() + "/README.md");
    std::stringstream ss;
    ss << in.rdbuf();
    std::string text = ss.str();
    size_t start = text.find("## Bad input");
    if (start == std::string::npos) return "";
    size_t end = text.find("\n## ", start + 1);
    return text.substr(start, end == std::string::npos ? std::string::npos : end - start);
}

TEST(BadInput, EveryOperatorsRowIsInTheReadme) {
    const auto cases = npucpu_fuzz::load_corpus(source_root() + "/fuzz/corpus");
    ASSERT_FALSE(cases.empty());
    const std::string section = readme_section();
    ASSERT_FALSE(section.empty());
    std::map<std::string, bool> seen;
    std::string missing;
    for (const auto &c : cases) {
        // The first seed of each operator (<op>-0) stands for it.
        if (c.name.size() < 2 || c.name.compare(c.name.size() - 2, 2, "-0") != 0) continue;
        const Row row = probe(c);
        seen[row.op] = true;
        const std::string line = render(row);
        if (section.find(line + "\n") == std::string::npos) missing += line + "\n";
    }
    EXPECT_EQ(missing, "") << "rows missing from README.md's Bad input section";
    for (const auto &f : npucpu_fuzz::families())
        for (const auto &op : f.ops) EXPECT_TRUE(seen[op.name]) << op.name << " has no -0 seed";
}

// Regressions of defects the fuzzers found: inputs declared with a data
// type narrower than float (their buffers hold fewer floats than their
// shapes) were read as floats past their ends. Now compute writes nothing and
// returns 0xa0808003.
struct NarrowCase {
    const char *op;
    uint32_t (*infershape)(OperatorContext *);
    uint32_t (*compute)(OperatorContext *);
    int narrow_input;  // which input is declared 8-bit
};

TEST(FuzzRegression, NarrowInputsAreNotReadAsFloats) {
    const NarrowCase cases[] = {
        {"add", add_infershape, add_compute, 0},   {"sub", sub_infershape, sub_compute, 1},
        {"mul", mul_infershape, mul_compute, 1},   {"div", div_infershape, div_compute, 0},
        {"pow", pow_infershape, pow_compute, 1},   {"prelu", prelu_infershape, prelu_compute, 1},
        {"sum", sum_infershape, sum_compute, 1},   {"mean", mean_infershape, mean_compute, 0},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.op);
        npucpu_test::Ctx ctx(2, 1);
        std::vector<float> wide = {1, -2, 3, -4};
        std::vector<int8_t> narrow = {1, 2, 3, 4};
        for (int i = 0; i < 2; ++i) {
            if (i == c.narrow_input)
                ctx.input(i, npucpu_test::shape_of({4}), narrow.data(), narrow.size(),
                          NPU_DTYPE_INT8);
            else
                ctx.input(i, npucpu_test::shape_of({4}), wide);
        }
        ASSERT_EQ(c.infershape(ctx.h), NPU_OK);
        auto &out = ctx.alloc_output(0, 7.0f);
        EXPECT_EQ(c.compute(ctx.h), NPU_ERR_INVALID_ARG);
        EXPECT_EQ(out, std::vector<float>(4, 7.0f));
    }
}

TEST(FuzzRegression, ExpandRefusesANarrowInput) {
    npucpu_test::Ctx ctx(2, 1);
    std::vector<int8_t> narrow = {1, 2, 3};
    std::vector<int64_t> shape = {2, 3};
    ctx.input(0, npucpu_test::shape_of({3}), narrow.data(), narrow.size(), NPU_DTYPE_INT8);
    ctx.input(1, npucpu_test::shape_of({2}), shape.data(), 16, NPU_DTYPE_INT64);
    ASSERT_EQ(expand_infershape(ctx.h), NPU_OK);
    auto &out = ctx.alloc_output(0, 7.0f);
    EXPECT_EQ(expand_compute(ctx.h), NPU_ERR_INVALID_ARG);
    EXPECT_EQ(out, std::vector<float>(6, 7.0f));
}

TEST(FuzzRegression, NmsRefusesScoresNarrowerThanFloat) {
    npucpu_test::Ctx ctx(3, 1);
    std::vector<float> boxes = {0, 0, 1, 1, 0, 0, 2, 2};
    std::vector<int8_t> scores = {9, 8};
    int64_t max_boxes = 2;
    ctx.input(0, npucpu_test::shape_of({1, 2, 4}), boxes);
    ctx.input(1, npucpu_test::shape_of({1, 1, 2}), scores.data(), scores.size(), NPU_DTYPE_INT8);
    ctx.input(2, npucpu_test::shape_of({1}), &max_boxes, 8, NPU_DTYPE_INT64);
    ASSERT_EQ(nms_infershape(ctx.h), NPU_OK);
    std::vector<int64_t> out(6, 7);
    qv_kel_custom_set_output_buf_by_index(ctx.h, 0, out.data(), out.size() * 8);
    EXPECT_EQ(nms_compute(ctx.h), NPU_ERR_INVALID_ARG);
    EXPECT_EQ(out, std::vector<int64_t>(6, 7));
}

// conv and conv_transpose read and write float elements whatever the data
// type; an 8-bit input (which conv_transpose's check_supported accepts)
// was read past its end and its output, sized at one byte per element,
// written past its end. Now compute writes nothing and returns 0xa0808003.
TEST(FuzzRegression, ConvolutionsRefuseEightBitTensors) {
    const struct {
        const char *op;
        uint32_t (*infershape)(OperatorContext *);
        uint32_t (*compute)(OperatorContext *);
        uint32_t filter_dtype;
    } ops[] = {{"conv", conv_infershape, conv_compute, NPU_DTYPE_FLOAT32},
               {"conv_transpose", conv_transpose_infershape, conv_transpose_compute,
                NPU_DTYPE_INT32}};
    for (const auto &op : ops) {
        SCOPED_TRACE(op.op);
        npucpu_test::Ctx ctx(2, 1, 1);
        std::vector<uint8_t> x(1 * 1 * 3 * 3, 2);
        std::vector<float> w(1 * 1 * 2 * 2, 1.0f);
        ctx.input(0, npucpu_test::shape_of({1, 1, 3, 3}), x.data(), x.size(), NPU_DTYPE_UINT8);
        ctx.input(1, npucpu_test::shape_of({1, 1, 2, 2}), w.data(), w.size() * 4,
                  op.filter_dtype);
        ctx.attr_string(0, "auto_pad", "NOTSET");
        ASSERT_EQ(op.infershape(ctx.h), NPU_OK);
        // The host sizes the output from the inferred type: one byte each.
        const TensorShape s = ctx.output_shape(0);
        std::vector<uint8_t> out(GetElemSize(&s), 7);
        qv_kel_custom_set_output_buf_by_index(ctx.h, 0, out.data(), out.size());
        EXPECT_EQ(op.compute(ctx.h), NPU_ERR_INVALID_ARG);
        EXPECT_EQ(out, std::vector<uint8_t>(out.size(), 7));
    }
}

// Pooling padded its input as float elements whatever the data type: an
// 8-bit input was read past its end. Now compute writes nothing and
// returns 0xa0808003.
TEST(FuzzRegression, PoolingRefusesEightBitTensors) {
    const struct {
        const char *op;
        uint32_t (*infershape)(OperatorContext *);
        uint32_t (*compute)(OperatorContext *);
    } ops[] = {{"averagepool", averagepool_infershape, averagepool_compute},
               {"maxpool", maxpool_infershape, maxpool_compute}};
    for (const auto &op : ops) {
        SCOPED_TRACE(op.op);
        npucpu_test::Ctx ctx(1, 1, 2);
        std::vector<uint8_t> x(25, 3);
        ctx.input(0, npucpu_test::shape_of({1, 1, 5, 5}), x.data(), x.size(), NPU_DTYPE_UINT8);
        ctx.attr_string(0, "auto_pad", "NOTSET");
        ctx.attr_ints(1, "kernel_shape", {2, 2});
        ASSERT_EQ(op.infershape(ctx.h), NPU_OK);
        const TensorShape s = ctx.output_shape(0);
        std::vector<uint8_t> out(GetElemSize(&s), 7);
        qv_kel_custom_set_output_buf_by_index(ctx.h, 0, out.data(), out.size());
        EXPECT_EQ(op.compute(ctx.h), NPU_ERR_INVALID_ARG);
        EXPECT_EQ(out, std::vector<uint8_t>(out.size(), 7));
    }
}

// Fuzzer inputs kept as they were found (fuzz/regressions/<family>/<name>)
// and replayed through the same decoder, with the statuses they now give.
TEST(FuzzRegression, ReplayedInputs) {
    const struct {
        const char *family, *file;
        uint32_t infershape, compute;
    } cases[] = {
        // conv_transpose with an NHWC input whose inferred output dims wrapped
        // to 2^32 - 1 beside a zero dim: do_padding overflowed int64 in its
        // offsets and then looped over billions of empty rows, and the
        // per-channel split arrays asked for 16 GiB. Now nothing is computed
        // for the empty output.
        {"conv", "conv_transpose-wrapped-dims", NPU_OK, NPU_OK},
        // group 2^31 - 1 with a rank-0 filter (so the group checks that need
        // the filter's dims were skipped): three split-size arrays of 8 GiB
        // each were allocated. Now refused: more groups than input channels.
        {"conv", "conv_transpose-huge-group", NPU_OK, NPU_ERR_INVALID_ARG},
        // conv_transpose with an empty output plane and a 2x18 kernel: the
        // empty-output check ran only after the input was spread and padded,
        // and the padding asked for 16 GiB. Now nothing is padded for an
        // output that holds no element.
        {"conv", "conv_transpose-empty-output-padding", NPU_OK, NPU_OK},
        // averagepool with a kernel of 2^32 - 4 rows over a 1 x 0 plane (from
        // the two-hour campaign): each window of the walk ran over 2^32 rows
        // of the same element, 155 s. Such a kernel breaks the host model
        // (it must fit the padded input); the decoder now keeps to it, so
        // this runs with a 1-row kernel.
        {"pool", "averagepool-kernel-past-padded-plane", NPU_OK, NPU_OK},
        // conv_transpose whose spread input, padded with negative pads, has
        // dims of 2^32 - 1 (from the two-hour campaign): img_2_col walked
        // 2^64 patches of a result holding 8 elements (stopped by the
        // fuzzer's 20-minute timeout). The patch loops now end once no
        // later patch can copy anything.
        {"conv", "conv_transpose-wrapped-padded-image", NPU_OK, NPU_OK},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.file);
        std::ifstream in(source_root() + "/fuzz/regressions/" + c.family + "/" + c.file,
                         std::ios::binary);
        ASSERT_TRUE(in.good());
        std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(in)), {});
        Outcome o;
        npucpu_test::capture_stderr([&] {
            npucpu_test::capture_stdout([&] {
                o = npucpu_fuzz::run_case(*npucpu_fuzz::family(c.family), bytes.data(),
                                          bytes.size());
            });
        });
        EXPECT_EQ(o.infershape, c.infershape);
        EXPECT_TRUE(o.computed);
        EXPECT_EQ(o.compute, c.compute);
    }
}

TEST(FuzzRegression, ConvRefusesMoreGroupsThanChannels) {
    npucpu_test::Ctx ctx(2, 1, 2);
    std::vector<float> x(2 * 3 * 3, 1.0f);
    float w = 1.0f;
    ctx.input(0, npucpu_test::shape_of({1, 2, 3, 3}), x);
    ctx.input(1, npucpu_test::shape_of({}), &w, 4);
    ctx.attr_string(0, "auto_pad", "NOTSET");
    ctx.attr_int(1, "group", 0x7fffffff);
    ASSERT_EQ(conv_infershape(ctx.h), NPU_OK);
    auto &out = ctx.alloc_output(0, 7.0f);
    EXPECT_EQ(conv_compute(ctx.h), NPU_ERR_INVALID_ARG);
    EXPECT_EQ(out, std::vector<float>(out.size(), 7.0f));
}

// conv_transpose with filters whose plane has no taps: (size - 1) x dilation
// wrapped, and the spread input was padded to 2^32 - 1 rows (16 GiB, filled)
// for an output that only received the bias. Now refused; an empty output
// still returns 0 untouched.
TEST(FuzzRegression, ConvTransposeRefusesTaplessFilters) {
    const struct {
        std::vector<uint32_t> filter;
        std::vector<int64_t> dilations, strides, pads;
    } cases[] = {
        {{1, 1, 0, 0}, {2, 2}, {2, 2}, {-1, -2, -1, -2}},  // 1x3 output, padded H wrapped
        {{1, 1, 0, 0}, {1, 1}, {1, 1}, {-1, -1, -1, -1}},
        {{1, 1, 0, 0}, {2, 2}, {2, 2}, {-2, -2, -2, -2}},
    };
    for (const auto &c : cases) {
        npucpu_test::Ctx ctx(3, 1, 4);
        std::vector<float> x(1, 1.0f), w(1, 0.0f), b(1, 2.5f);
        ctx.input(0, npucpu_test::shape_of({1, 1, 1, 1}), x);
        ctx.input(1, npucpu_test::shape_of(c.filter), w.data(), 0);
        ctx.input(2, npucpu_test::shape_of({1}), b);
        ctx.attr_string(0, "auto_pad", "NOTSET");
        ctx.attr_ints(1, "dilations", c.dilations);
        ctx.attr_ints(2, "strides", c.strides);
        ctx.attr_ints(3, "pads", c.pads);
        ASSERT_EQ(conv_transpose_infershape(ctx.h), NPU_OK);
        auto &out = ctx.alloc_output(0, 7.0f);
        ASSERT_FALSE(out.empty());
        EXPECT_EQ(conv_transpose_compute(ctx.h), NPU_ERR_INVALID_ARG);
        EXPECT_EQ(out, std::vector<float>(out.size(), 7.0f));
    }
}

// do_padding of dims that wrapped near 2^32: the batch offsets overflowed
// int64 (undefined behaviour, caught by the sanitizer build) before any row
// was looked at. Now they saturate, and no row is copied when none can be.
TEST(FuzzRegression, PaddingToWrappedDimsStaysDefined) {
    float one = 5.0f;
    Tensor in{npucpu_test::shape_of({1, 1, 1, 1}), NPU_DTYPE_FLOAT32, NPU_FORMAT_NCHW, &one};
    const uint32_t pads[4] = {0, 0, 0xFFFFFFFEu, 0xFFFFFFFEu};
    Tensor *out = do_padding(&in, pads, 0.0f);
    ASSERT_NE(out, nullptr);
    EXPECT_EQ(out->shape.dims[2], 0xFFFFFFFFu);
    EXPECT_EQ(out->shape.dims[3], 0xFFFFFFFFu);
    EXPECT_EQ(out->data[0], 0.0f);  // the 32-bit count wraps to one element
    free_tensor(out);
}

// A reduction of an input with a zero dim: a pass after the zero-length axis
// read an element the empty input does not have. Now no pass runs and the
// output is left as it was.
TEST(FuzzRegression, ReductionOfAnEmptyInputReadsNothing) {
    const struct {
        const char *op;
        uint32_t (*infershape)(OperatorContext *);
        uint32_t (*compute)(OperatorContext *);
    } ops[] = {{"reducemax", reducemax_infershape, reducemax_compute},
               {"reducemin", reducemin_infershape, reducemin_compute},
               {"reducemean", reducemean_infershape, reducemean_compute}};
    for (const auto &op : ops) {
        SCOPED_TRACE(op.op);
        npucpu_test::Ctx ctx(1, 1);
        float none = 0;
        ctx.input(0, npucpu_test::shape_of({2, 0, 7}), &none, 0);
        ASSERT_EQ(op.infershape(ctx.h), NPU_OK);
        auto &out = ctx.alloc_output(0, 7.0f);
        EXPECT_EQ(op.compute(ctx.h), NPU_OK);
        EXPECT_EQ(out, std::vector<float>(out.size(), 7.0f));
    }
}

}  // namespace
