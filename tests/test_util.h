// Shared helpers of the C++ tests: a host-side context builder that keeps
// attribute values alive, and captured output with the volatile parts
// (time stamps, source lines) masked.
#ifndef NPUCPU_TESTS_TEST_UTIL_H
#define NPUCPU_TESTS_TEST_UTIL_H

#include <cstdint>
#include <deque>
#include <functional>
#include <initializer_list>
#include <string>
#include <vector>

#include "npucpu.h"

namespace npucpu_test {

TensorShape shape_of(std::initializer_list<uint32_t> dims);
TensorShape shape_of(const std::vector<uint32_t> &dims);
std::vector<uint32_t> dims_of(const TensorShape &s);

// Owns one OperatorContext and every attribute value given to it.
class Ctx {
public:
    Ctx(uint32_t inputs, uint32_t outputs, uint32_t attrs = 0);
    ~Ctx();
    Ctx(const Ctx &) = delete;
    Ctx &operator=(const Ctx &) = delete;

    OperatorContext *h = nullptr;

    // Describes input `i`; the buffer stays the caller's.
    void input(uint32_t i, const TensorShape &shape, void *buf, uint64_t len,
               uint32_t dtype = NPU_DTYPE_FLOAT32, uint32_t format = NPU_FORMAT_NCHW);
    void input(uint32_t i, const TensorShape &shape, std::vector<float> &data);

    void attr_int(uint32_t i, const char *name, int64_t v);
    void attr_ints(uint32_t i, const char *name, std::vector<int64_t> v);
    void attr_float(uint32_t i, const char *name, float v);
    void attr_floats(uint32_t i, const char *name, std::vector<float> v);
    void attr_string(uint32_t i, const char *name, const std::string &v);

    TensorShape output_shape(uint32_t i) const;
    // Allocates output `i` from its inferred shape (float elements, filled
    // with `fill`) and attaches it.
    std::vector<float> &alloc_output(uint32_t i, float fill = 0.0f);
    std::vector<float> &output(uint32_t i) { return outputs_[i]; }

private:
    std::deque<std::vector<char>> values_;
    std::deque<std::vector<float>> outputs_;
};

// Runs fn and returns what it wrote to stdout / stderr.
std::string capture_stdout(const std::function<void()> &fn);
std::string capture_stderr(const std::function<void()> &fn);

// "[E] [custom] [unit:123] " -> "[E] [custom] [unit:L] ".
std::string mask_error_lines(const std::string &text);
// "12:34:56 Err   func:123 msg" -> "T Err   func:L msg".
std::string mask_log_lines(const std::string &text);

}  // namespace npucpu_test

#endif
