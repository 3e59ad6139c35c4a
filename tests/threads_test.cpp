// Concurrency: every operator (the seed corpus holds valid invocations of
// all of them) runs from several threads at once, each thread on contexts of
// its own, and every result must equal the single-threaded one byte for
// byte. scripts/test.sh builds and runs this under ThreadSanitizer; the only
// state the threads share is the log level.
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "../fuzz/harness.h"

namespace {

std::string corpus_root() {
    std::string here = __FILE__;
    return here.substr(0, here.rfind('/')) + "/../fuzz/corpus";
}

TEST(Threads, ConcurrentRunsMatchTheSingleThreadedRun) {
    const auto cases = npucpu_fuzz::load_corpus(corpus_root());
    ASSERT_FALSE(cases.empty());
    std::vector<npucpu_fuzz::Outcome> reference;
    for (const auto &c : cases)
        reference.push_back(
            npucpu_fuzz::run_case(*c.family, c.bytes.data(), c.bytes.size(), true));

    constexpr int kThreads = 4;
    constexpr int kRounds = 10;
    std::atomic<int> mismatches{0};
    std::vector<std::string> first_mismatch(kThreads);
    std::vector<std::thread> pool;
    for (int t = 0; t < kThreads; ++t) {
        pool.emplace_back([&, t] {
            for (int round = 0; round < kRounds; ++round) {
                // Each thread walks the cases from a different start, so
                // different operators overlap.
                for (size_t k = 0; k < cases.size(); ++k) {
                    size_t i = (k + size_t(t) * cases.size() / kThreads) % cases.size();
                    const auto &c = cases[i];
                    auto got = npucpu_fuzz::run_case(*c.family, c.bytes.data(), c.bytes.size(),
                                                     true);
                    const auto &want = reference[i];
                    if (got.infershape != want.infershape || got.compute != want.compute ||
                        got.outputs != want.outputs) {
                        if (mismatches++ == 0 || first_mismatch[t].empty())
                            first_mismatch[t] = c.name;
                    }
                }
            }
            // The log level is the one shared setting; touching it from every
            // thread must be race-free.
            set_log_level(get_log_level());
        });
    }
    for (auto &th : pool) th.join();
    EXPECT_EQ(mismatches.load(), 0);
    for (int t = 0; t < kThreads; ++t)
        EXPECT_TRUE(first_mismatch[t].empty()) << "thread " << t << ": " << first_mismatch[t];
}

}  // namespace
