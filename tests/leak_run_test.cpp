// Leak run: every operator's three entry points on valid inputs (the
// committed seed corpus, which holds valid invocations of every operator),
// many times over. Under the sanitizer build LeakSanitizer checks at exit
// that nothing was left allocated; scripts/test.sh runs it as its own stage
// with more rounds (NPUCPU_LEAK_ROUNDS).
#include <gtest/gtest.h>

#include <cstdlib>
#include <set>
#include <string>

#include "../fuzz/harness.h"

namespace {

std::string corpus_root() {
    std::string here = __FILE__;
    return here.substr(0, here.rfind('/')) + "/../fuzz/corpus";
}

int rounds() {
    const char *env = std::getenv("NPUCPU_LEAK_ROUNDS");
    int n = env ? std::atoi(env) : 0;
    return n > 0 ? n : 3;
}

TEST(LeakRun, EveryOperatorRunsCleanOnItsSeeds) {
    auto cases = npucpu_fuzz::load_corpus(corpus_root());
    ASSERT_FALSE(cases.empty()) << "no corpus under " << corpus_root();
    std::set<std::string> covered;
    int n = rounds();
    for (int round = 0; round < n; ++round) {
        for (const auto &c : cases) {
            auto out = npucpu_fuzz::run_case(*c.family, c.bytes.data(), c.bytes.size());
            const auto &op = c.family->ops[out.op];
            ASSERT_EQ(out.infershape, NPU_OK) << c.name;
            ASSERT_TRUE(out.computed) << c.name;
            ASSERT_EQ(out.compute, NPU_OK) << c.name;
            covered.insert(op.name);
        }
    }
    // Every operator of every family has at least one valid seed.
    for (const auto &f : npucpu_fuzz::families())
        for (const auto &op : f.ops) EXPECT_TRUE(covered.count(op.name)) << op.name;
}

}  // namespace
