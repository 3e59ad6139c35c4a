// The library's own stable merge sort, driven by a qsort-style comparator.
// Used wherever an order must not depend on the platform's qsort: equal
// elements keep their original relative order.
#ifndef NPUCPU_IMPL_UTILS_STABLE_SORT_H
#define NPUCPU_IMPL_UTILS_STABLE_SORT_H

#include <cstddef>

namespace npucpu {

using CompareFn = int (*)(const void *, const void *);

// Sorts `count` elements of `size` bytes at `base` so that cmp(a, b) <= 0 for
// each neighbouring pair, stably. Allocates one scratch buffer of the same
// size (none for fewer than two elements).
void stable_sort(void *base, size_t count, size_t size, CompareFn cmp);

}  // namespace npucpu

#endif
