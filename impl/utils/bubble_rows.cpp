#include "bubble_rows.h"

#include <cstring>

namespace npucpu {

namespace {

// Whether `len` bytes at `offset` lie inside a buffer of `buf_len` bytes.
bool fits(uint32_t offset, uint32_t len, uint64_t buf_len) {
    return static_cast<uint64_t>(offset) + len <= buf_len;
}

}  // namespace

void copy_bubble_rows(const TensorShape &shape, uint32_t row_bytes, const RowBuffer &from,
                      const RowBuffer &to) {
    const unsigned char *src = static_cast<const unsigned char *>(from.buf);
    unsigned char *dst = static_cast<unsigned char *>(to.buf);
    const uint32_t rank = shape.dim_num;
    if (rank < 2) {
        if (fits(0, row_bytes, from.buf_len) && fits(0, row_bytes, to.buf_len)) {
            std::memcpy(dst, src, row_bytes);
        }
        return;
    }
    const uint32_t rows = accumulate_mul(shape.dims, 0, static_cast<int32_t>(rank) - 1);
    for (uint32_t r = 0; r < rows; ++r) {
        const uint32_t at_src = r * from.stride;
        const uint32_t at_dst = r * to.stride;
        if (!fits(at_src, row_bytes, from.buf_len) || !fits(at_dst, row_bytes, to.buf_len)) break;
        std::memcpy(dst + at_dst, src + at_src, row_bytes);
    }
}

}  // namespace npucpu
