// The host demo's own parts: pipeline descriptions and .npy files. The demo
// end to end (library calls, table, results) runs as CTest commands.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <tuple>
#include <vector>

extern "C" {
#include "npy.h"
#include "pipeline.h"
}

namespace {

struct Parsed {
    Pipeline p{};
    int rc = 0;
    std::string err;
    explicit Parsed(const char *text, const char *dir = "") {
        char buf[512] = "";
        rc = pipeline_parse(text, dir, &p, buf, sizeof buf);
        err = buf;
    }
    ~Parsed() { pipeline_free(&p); }
};

std::string shape_text(const TensorShape &s) {
    char buf[200];
    shape_format(&s, buf, sizeof buf);
    return buf;
}

TEST(HostDemoPipeline, ParsesEveryStatement) {
    Parsed r(
        "# a classifier tail\n"
        "input x data/x.npy   # relative to the description\n"
        "input w\n"
        "const k int64 1 3\n"
        "const s float32 scalar 0.5\n"
        "node conv x w - -> y kernel_shape=3,3 auto_pad=NOTSET alpha=1.5 scales=0.5,2\n"
        "view y -> flat 1x16\n"
        "node topk flat k -> v i axis=-1 mode:str=7 sizes:ints=4 f:floats=1\n"
        "result i v\n",
        "/models");
    ASSERT_EQ(r.rc, 0) << r.err;
    const Pipeline &p = r.p;
    ASSERT_EQ(std::make_tuple(p.n_inputs, p.n_consts, p.n_steps, p.n_results), std::make_tuple(2u, 2u, 3u, 2u));
    EXPECT_STREQ(p.inputs[0].path, "/models/data/x.npy");
    EXPECT_STREQ(p.inputs[1].path, "");
    EXPECT_EQ(p.consts[0].dtype, NPU_DTYPE_INT64);
    EXPECT_EQ(*static_cast<int64_t *>(p.consts[0].data), 3);
    EXPECT_EQ(p.consts[1].shape.dim_num, 0u);
    EXPECT_EQ(*static_cast<float *>(p.consts[1].data), 0.5f);
    EXPECT_STREQ(p.results[0], "i");

    const Step &conv = p.steps[0], &topk = p.steps[2];
    EXPECT_EQ(std::make_tuple(conv.kind, conv.line, std::string(conv.op), conv.n_inputs, std::string(conv.inputs[2])),
              std::make_tuple(STEP_NODE, 6, std::string("conv"), 3u, std::string("-")));
    EXPECT_EQ(p.steps[1].kind, STEP_VIEW);
    EXPECT_EQ(shape_text(p.steps[1].view_shape), "1x16");
    ASSERT_EQ(std::make_tuple(conv.n_attrs, topk.n_attrs, topk.n_outputs), std::make_tuple(4u, 4u, 2u));
    // A type given after the name is forced: "7" stays text, "4" a list.
    const struct { const Step *step; uint32_t i; const char *name; uint32_t type; uint64_t len; } attrs[] = {
        {&conv, 0, "kernel_shape", NPU_ATTR_INTS, 16}, {&conv, 1, "auto_pad", NPU_ATTR_STRING, 6},
        {&conv, 2, "alpha", NPU_ATTR_FLOAT, 4},        {&conv, 3, "scales", NPU_ATTR_FLOATS, 8},
        {&topk, 0, "axis", NPU_ATTR_INT, 8},           {&topk, 1, "mode", NPU_ATTR_STRING, 1},
        {&topk, 2, "sizes", NPU_ATTR_INTS, 8},         {&topk, 3, "f", NPU_ATTR_FLOATS, 4},
    };
    for (const auto &a : attrs) {
        SCOPED_TRACE(a.name);
        EXPECT_STREQ(a.step->attrs[a.i].name, a.name);
        EXPECT_EQ(a.step->attrs[a.i].type, a.type);
        EXPECT_EQ(a.step->attrs[a.i].len, a.len);
    }
    EXPECT_EQ(memcmp(conv.attrs[1].data, "NOTSET", 6), 0);
    EXPECT_EQ(*static_cast<int64_t *>(topk.attrs[0].data), -1);
}

TEST(HostDemoPipeline, ResultsDefaultToTheLastStepsOutputs) {
    Parsed r("input x\nnode topk x x -> v i\n");
    ASSERT_EQ(r.rc, 0) << r.err;
    ASSERT_EQ(r.p.n_results, 2u);
    EXPECT_STREQ(r.p.results[1], "i");
}

TEST(HostDemoPipeline, RefusesBadDescriptionsWithTheLine) {
    const struct { const char *text, *err; } cases[] = {
        {"", "the description has no node"},
        {"input x\nnode relu y -> z\n", "line 2: tensor 'y' is used before it is defined"},
        {"input x\nnode relu x -> x\n", "line 2: tensor 'x' is defined twice"},
        {"input x\nnode relu x\n", "line 2: '->' missing between inputs and outputs"},
        {"input x\nnode relu x ->\n", "line 2: node relu has no output"},
        {"input x\nnode relu x -> y a=1 a=2\n", "line 2: attribute 'a' given twice"},
        {"input x\nnode relu x -> y a:bytes=1\n", "line 2: attribute 'a': unknown type 'bytes'"},
        {"input x\nnode relu x -> y a:int=1,2\n", "line 2: attribute 'a': one value expected"},
        {"input x\nnode relu x -> y a:ints=1,b\n", "line 2: attribute 'a': 'b' is not an integer"},
        {"const k int64 2 1\n", "line 1: const 'k': 2 values expected"},
        {"const k int64 2 1,x\n", "line 1: const 'k': 'x' is not an integer"},
        {"const k complex 1 1\n", "line 1: const 'k': unsupported data type 'complex'"},
        {"const k float32 2y3 1\n", "line 1: const 'k': bad dims '2y3' (write 1x3x4 or scalar)"},
        {"input x\nview - -> y 1\n", "line 2: cannot view an absent tensor"},
        {"input x\nview x y 1\n", "line 2: expected: view IN -> OUT DIMS"},
        {"input x\nresult y\n", "line 2: tensor 'y' is used before it is defined"},
        {"input bad/name\n", "line 1: bad tensor name 'bad/name'"},
        {"inputs x\n", "line 1: unknown statement 'inputs' (input, const, node, view, result)"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.text);
        Parsed r(c.text);
        EXPECT_EQ(r.rc, -1);
        EXPECT_EQ(r.err, c.err);
        EXPECT_EQ(r.p.n_steps, 0u) << "a failed parse leaves the pipeline empty";
    }
}

// A .npy image as NumPy writes it: version 1.0 (2.0 and 3.0 have a 4-byte
// length), header padded with blanks to a multiple of 64 bytes, ended by a
// newline.
std::vector<unsigned char> npy_image(const std::string &dict, const void *data, size_t len, unsigned version = 1) {
    const size_t pre = version == 1 ? 10 : 12;
    std::string header = dict;
    while ((pre + header.size() + 1) % 64 != 0) header += ' ';
    header += '\n';
    std::vector<unsigned char> out = {0x93, 'N', 'U', 'M', 'P', 'Y', static_cast<unsigned char>(version), 0,
                                      static_cast<unsigned char>(header.size() & 0xff),
                                      static_cast<unsigned char>(header.size() >> 8)};
    if (version != 1) out.insert(out.end(), {0, 0});
    out.insert(out.end(), header.begin(), header.end());
    out.insert(out.end(), static_cast<const unsigned char *>(data), static_cast<const unsigned char *>(data) + len);
    return out;
}

TEST(HostDemoNpy, ReadsWhatItCanAndNamesWhatItCannot) {
    const float f[6] = {1, 2, 3, 4, 5, -6};
    const int64_t i[2] = {-1, 7};
    const std::string f4 = "{'descr': '<f4', 'fortran_order': False, 'shape': (2, 3), }";
    const struct { std::string dict; const void *data; size_t len; unsigned version; uint32_t dtype; std::string shape;
                   const char *err; } cases[] = {
        {f4, f, 24, 1, NPU_DTYPE_FLOAT32, "2x3", ""},
        {"{'descr': '<i8', 'fortran_order': False, 'shape': (2,), }", i, 16, 1, NPU_DTYPE_INT64, "2", ""},
        {"{'descr': '<f4', 'fortran_order': False, 'shape': (), }", f, 4, 2, NPU_DTYPE_FLOAT32, "scalar", ""},
        {"{'descr': '|u1', 'fortran_order': False, 'shape': (1, 4), }", f, 4, 3, NPU_DTYPE_UINT8, "1x4", ""},
        {"{'descr': '<f4', 'fortran_order': True, 'shape': (2, 3), }", f, 24, 1, 0, "",
         "Fortran-ordered arrays are not supported"},
        {"{'descr': '>f4', 'fortran_order': False, 'shape': (2, 3), }", f, 24, 1, 0, "", "unsupported data type '>f4'"},
        {"{'descr': '<c8', 'fortran_order': False, 'shape': (2, 3), }", f, 24, 1, 0, "", "unsupported data type '<c8'"},
        {f4, f, 20, 1, 0, "", "the file holds fewer bytes than its shape needs"},
        {"{'descr': '<f4', 'shape': (2, 3), }", f, 24, 1, 0, "", "malformed .npy header"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.dict);
        const auto img = npy_image(c.dict, c.data, c.len, c.version);
        HostTensor t{};
        char err[200] = "";
        const int rc = npy_parse(img.data(), img.size(), &t, err, sizeof err);
        EXPECT_STREQ(err, c.err);
        if (*c.err) {
            EXPECT_EQ(rc, -1);
            EXPECT_EQ(t.data, nullptr);
            continue;
        }
        ASSERT_EQ(rc, 0);
        EXPECT_EQ(t.dtype, c.dtype);
        EXPECT_EQ(shape_text(t.shape), c.shape);
        ASSERT_EQ(t.len, c.len);
        EXPECT_EQ(memcmp(t.data, c.data, c.len), 0);
        host_tensor_free(&t);
    }
    const unsigned char not_npy[12] = {'P', 'K'};
    HostTensor t{};
    char err[200] = "";
    EXPECT_EQ(npy_parse(not_npy, sizeof not_npy, &t, err, sizeof err), -1);
    EXPECT_STREQ(err, "not a .npy file");
}

TEST(HostDemoNpy, SavedFilesReadBack) {
    int32_t v[6] = {1, -2, 3, -4, 5, -6};
    for (uint8_t rank : {0, 1, 2}) {
        HostTensor t{};
        snprintf(t.name, sizeof t.name, "t");
        t.dtype = NPU_DTYPE_INT32, t.shape.dim_num = rank, t.shape.dims[0] = rank == 1 ? 6 : 2, t.shape.dims[1] = 3;
        t.data = v, t.len = rank == 0 ? 4 : 24;
        const std::string path = ::testing::TempDir() + "host_demo_npy_" + std::to_string(rank) + ".npy";
        char err[600] = "";
        ASSERT_EQ(npy_save(path.c_str(), &t, err, sizeof err), 0) << err;
        HostTensor back{};
        ASSERT_EQ(npy_load(path.c_str(), &back, err, sizeof err), 0) << err;
        EXPECT_EQ(shape_text(back.shape), shape_text(t.shape));
        EXPECT_EQ(back.dtype, t.dtype);
        ASSERT_EQ(back.len, t.len);
        EXPECT_EQ(memcmp(back.data, v, t.len), 0);
        host_tensor_free(&back);
        std::remove(path.c_str());
    }
}

}  // namespace
