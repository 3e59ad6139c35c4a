// Prints what fuzz/harness.h decodes from an input file and runs it:
//   fuzz_describe <family> <file>
// (used to read crash artifacts and corpus entries).
#include <fstream>
#include <iterator>

#include "harness.h"

int main(int argc, char **argv) {
    std::setvbuf(stdout, nullptr, _IONBF, 0);
    if (argc != 3 || npucpu_fuzz::family(argv[1]) == nullptr) {
        std::fprintf(stderr, "usage: %s <family> <file>\n", argv[0]);
        return 2;
    }
    std::ifstream in(argv[2], std::ios::binary);
    std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(in)), {});
    auto out = npucpu_fuzz::run_case(*npucpu_fuzz::family(argv[1]), bytes.data(), bytes.size(),
                                     false, stdout);
    std::printf("  computed %d, check_supported %u, compute -> %#x\n", out.computed ? 1 : 0,
                out.check_supported, out.compute);
    return 0;
}
