// libFuzzer entry of one operator family (NPUCPU_FUZZ_FAMILY, set by the
// build): every input is decoded into a context for one of the family's
// operators and run (fuzz/harness.h).
#include <cstdio>
#include <cstdlib>

#include "harness.h"

namespace {
const npucpu_fuzz::Family &the_family() {
    static const npucpu_fuzz::Family *f = npucpu_fuzz::family(NPUCPU_FUZZ_FAMILY);
    if (f == nullptr) {
        std::fprintf(stderr, "no operator family %s\n", NPUCPU_FUZZ_FAMILY);
        std::abort();
    }
    return *f;
}
}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    // API log lines (stdout) would only slow the run down: level 6 is above
    // every level print_log prints.
    set_log_level(6);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    npucpu_fuzz::run_case(the_family(), data, size);
    return 0;
}
