#include "test_util.h"

#include <gtest/gtest.h>

#include <cstring>
#include <regex>

#include "npucpu.h"

namespace npucpu_test {

TensorShape shape_of(std::initializer_list<uint32_t> dims) {
    return shape_of(std::vector<uint32_t>(dims));
}

TensorShape shape_of(const std::vector<uint32_t> &dims) {
    TensorShape s{};
    s.dim_num = static_cast<uint8_t>(dims.size());
    for (size_t i = 0; i < dims.size(); ++i) s.dims[i] = dims[i];
    return s;
}

std::vector<uint32_t> dims_of(const TensorShape &s) {
    return std::vector<uint32_t>(s.dims, s.dims + s.dim_num);
}

Ctx::Ctx(uint32_t inputs, uint32_t outputs, uint32_t attrs) {
    qv_kel_custom_create_handle(&h);
    qv_kel_custom_set_inputs_num(h, inputs);
    qv_kel_custom_set_outputs_num(h, outputs);
    if (attrs > 0) qv_kel_custom_set_attrs_num(h, attrs);
    outputs_.resize(outputs);
}

Ctx::~Ctx() { qv_kel_custom_destory_handle(&h); }

void Ctx::input(uint32_t i, const TensorShape &shape, void *buf, uint64_t len, uint32_t dtype,
                uint32_t format) {
    ASSERT_EQ(qv_kel_custom_set_input_by_index(h, i, dtype, format, &shape, buf, len, 0), 0u);
}

void Ctx::input(uint32_t i, const TensorShape &shape, std::vector<float> &data) {
    input(i, shape, data.data(), data.size() * sizeof(float));
}

namespace {
template <typename T>
std::vector<char> bytes_of(const T *p, size_t n) {
    std::vector<char> v(n * sizeof(T) + 1);
    if (n) std::memcpy(v.data(), p, n * sizeof(T));
    return v;
}
}  // namespace

void Ctx::attr_int(uint32_t i, const char *name, int64_t v) {
    values_.push_back(bytes_of(&v, 1));
    qv_kel_custom_set_attr_by_index(h, i, name, 0, NPU_ATTR_INT, values_.back().data(), 8);
}

void Ctx::attr_ints(uint32_t i, const char *name, std::vector<int64_t> v) {
    values_.push_back(bytes_of(v.data(), v.size()));
    qv_kel_custom_set_attr_by_index(h, i, name, 0, NPU_ATTR_INTS, values_.back().data(), 8 * v.size());
}

void Ctx::attr_float(uint32_t i, const char *name, float v) {
    values_.push_back(bytes_of(&v, 1));
    qv_kel_custom_set_attr_by_index(h, i, name, 0, NPU_ATTR_FLOAT, values_.back().data(), 4);
}

void Ctx::attr_floats(uint32_t i, const char *name, std::vector<float> v) {
    values_.push_back(bytes_of(v.data(), v.size()));
    qv_kel_custom_set_attr_by_index(h, i, name, 0, NPU_ATTR_FLOATS, values_.back().data(), 4 * v.size());
}

void Ctx::attr_string(uint32_t i, const char *name, const std::string &v) {
    values_.push_back(bytes_of(v.data(), v.size()));
    qv_kel_custom_set_attr_by_index(h, i, name, 0, NPU_ATTR_STRING, values_.back().data(), v.size());
}

TensorShape Ctx::output_shape(uint32_t i) const {
    TensorShape s{};
    qv_kel_custom_get_output_shape_by_index(h, i, &s);
    return s;
}

std::vector<float> &Ctx::alloc_output(uint32_t i, float fill) {
    TensorShape s = output_shape(i);
    outputs_[i].assign(GetElemSize(&s), fill);
    qv_kel_custom_set_output_buf_by_index(h, i, outputs_[i].data(), outputs_[i].size() * sizeof(float));
    return outputs_[i];
}

std::string capture_stdout(const std::function<void()> &fn) {
    fflush(stdout);
    testing::internal::CaptureStdout();
    fn();
    fflush(stdout);
    return testing::internal::GetCapturedStdout();
}

std::string capture_stderr(const std::function<void()> &fn) {
    testing::internal::CaptureStderr();
    fn();
    fflush(stderr);
    return testing::internal::GetCapturedStderr();
}

std::string mask_error_lines(const std::string &text) {
    static const std::regex line(R"(\[E\] \[custom\] \[([A-Za-z0-9_]+):[0-9]+\] )");
    return std::regex_replace(text, line, "[E] [custom] [$1:L] ");
}

std::string mask_log_lines(const std::string &text) {
    static const std::regex line(R"((^|\n)[0-9]{2}:[0-9]{2}:[0-9]{2} (.{5}) ([A-Za-z0-9_]+):[0-9]+ )");
    return std::regex_replace(text, line, "$1T $2 $3:L ");
}

}  // namespace npucpu_test
