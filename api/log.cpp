// Levelled logger used by the context API. Operators do not use it: their
// error lines go to stderr through error_line (impl/utils/op_log.h).
#include <algorithm>
#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <ctime>
#include <string>

#include "npucpu.h"
#include "text_format.h"

namespace {
// The only mutable global of the library. Relaxed ordering is enough: the
// level is a threshold, not a guard for other data.
std::atomic<uint32_t> g_log_level{1};
constexpr uint32_t kLevelCount = 6;
}  // namespace

extern "C" {

NPU_API const char *LEVEL_STR[6] = {"Trace", "Debug", "Info", "WARN", "Err", "Fatal"};

NPU_API void set_log_level(uint32_t level) { g_log_level.store(level, std::memory_order_relaxed); }

NPU_API uint32_t get_log_level(void) { return g_log_level.load(std::memory_order_relaxed); }

NPU_API void print_log(uint32_t level, const char *func, int32_t line, const char *fmt, ...) {
    if (g_log_level.load(std::memory_order_relaxed) > level) return;
    if (level >= kLevelCount) return;  // no name to print for it

    std::time_t now = std::time(nullptr);
    std::tm local{};
    localtime_r(&now, &local);
    char stamp[16];
    size_t n = std::strftime(stamp, sizeof stamp, "%H:%M:%S", &local);
    stamp[n] = '\0';

    // Build the whole line first so that it reaches stdout in one write.
    char head[256];
    int hn = std::snprintf(head, sizeof head, "%s %-5s %s:%d ", stamp, LEVEL_STR[level],
                           func ? func : "(null)", line);
    std::string text(head, hn > 0 ? std::min(static_cast<size_t>(hn), sizeof head - 1) : 0);
    va_list ap;
    va_start(ap, fmt);
    npucpu::append_vformat(text, fmt, ap);
    va_end(ap);
    text += '\n';
    std::fwrite(text.data(), 1, text.size(), stdout);
    std::fflush(stdout);
}

}  // extern "C"
