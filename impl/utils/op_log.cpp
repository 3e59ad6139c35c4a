#include "op_log.h"

#include "text_format.h"

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
    append_vformat(text, fmt, ap);
    va_end(ap);
    // One write, so that concurrent callers do not interleave within a line.
    std::fwrite(text.data(), 1, text.size(), stderr);
}

}  // namespace npucpu
