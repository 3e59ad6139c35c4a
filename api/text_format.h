// printf-style formatting appended to a std::string, shared by the two
// loggers so that each writes its line in one call.
#ifndef NPUCPU_API_TEXT_FORMAT_H
#define NPUCPU_API_TEXT_FORMAT_H

#include <cstdarg>
#include <cstdio>
#include <string>

namespace npucpu {

inline void append_vformat(std::string &text, const char *fmt, va_list ap) {
    va_list probe;
    va_copy(probe, ap);
    int n = std::vsnprintf(nullptr, 0, fmt, probe);
    va_end(probe);
    if (n <= 0) return;
    size_t at = text.size();
    text.resize(at + static_cast<size_t>(n) + 1);
    std::vsnprintf(&text[at], static_cast<size_t>(n) + 1, fmt, ap);
    text.resize(at + static_cast<size_t>(n));
}

}  // namespace npucpu

#endif
