#include "op_log.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <string>

namespace npucpu {

void error_line(const char *unit, int line, const char *fmt, ...) {
    const char *base = std::strrchr(unit, '/');
    base = base != nullptr ? base + 1 : unit;
    std::string text = "[E] [custom] [";
    text.append(base, std::strcspn(base, "."));
    text += ':';
    text += std::to_string(line);
    text += "] ";
    va_list ap;
    va_start(ap, fmt);
    va_list ap2;
    va_copy(ap2, ap);
    int n = std::vsnprintf(nullptr, 0, fmt, ap);
    va_end(ap);
    if (n > 0) {
        size_t at = text.size();
        text.resize(at + static_cast<size_t>(n) + 1);
        std::vsnprintf(&text[at], static_cast<size_t>(n) + 1, fmt, ap2);
        text.resize(at + static_cast<size_t>(n));
    }
    va_end(ap2);
    // One write, so that concurrent callers do not interleave within a line.
    std::fwrite(text.data(), 1, text.size(), stderr);
}

}  // namespace npucpu
