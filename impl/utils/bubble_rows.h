// Row copy shared by add_bubble and remove_bubble: moves rows of `row_bytes`
// between a densely packed buffer and one whose rows start every `wstride`
// bytes, leaving the gaps untouched.
#ifndef NPUCPU_IMPL_UTILS_BUBBLE_ROWS_H
#define NPUCPU_IMPL_UTILS_BUBBLE_ROWS_H

#include <cstdint>

#include "npucpu.h"

namespace npucpu {

struct RowBuffer {
    void *buf;
    uint64_t buf_len;
    uint32_t stride;  // bytes from one row to the next
};

// Copies the rows of a tensor of `shape` (rank 0 or 1: one row) whose rows
// are `row_bytes` long. Offsets are 32-bit as the operators define them.
// Guard: only whole rows that fit in both buffers are copied; the copy stops
// at the first row that does not.
void copy_bubble_rows(const TensorShape &shape, uint32_t row_bytes, const RowBuffer &from,
                      const RowBuffer &to);

}  // namespace npucpu

#endif
