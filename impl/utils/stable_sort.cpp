#include "stable_sort.h"

#include <cstdlib>
#include <cstring>

namespace npucpu {

namespace {

// Bottom-up merge sort: runs of width w are merged pairwise from src to dst,
// taking from the left run on ties so equal elements stay in order.
void merge_pass(const char *src, char *dst, size_t count, size_t size, size_t w, CompareFn cmp) {
    for (size_t lo = 0; lo < count; lo += 2 * w) {
        size_t mid = lo + w < count ? lo + w : count;
        size_t hi = lo + 2 * w < count ? lo + 2 * w : count;
        size_t i = lo, j = mid, k = lo;
        while (i < mid && j < hi) {
            if (cmp(src + j * size, src + i * size) < 0) {
                std::memcpy(dst + k++ * size, src + j++ * size, size);
            } else {
                std::memcpy(dst + k++ * size, src + i++ * size, size);
            }
        }
        if (i < mid) std::memcpy(dst + k * size, src + i * size, (mid - i) * size), k += mid - i;
        if (j < hi) std::memcpy(dst + k * size, src + j * size, (hi - j) * size);
    }
}

}  // namespace

void stable_sort(void *base, size_t count, size_t size, CompareFn cmp) {
    if (count < 2 || size == 0) return;
    char *data = static_cast<char *>(base);
    char *scratch = static_cast<char *>(std::malloc(count * size));
    char *src = data, *dst = scratch;
    for (size_t w = 1; w < count; w *= 2) {
        merge_pass(src, dst, count, size, w, cmp);
        char *t = src;
        src = dst;
        dst = t;
    }
    if (src != data) std::memcpy(data, src, count * size);
    std::free(scratch);
}

}  // namespace npucpu
