// The one way operators and kernel utilities report an error: a single line
// on stderr, "[E] [custom] [<unit>:<line>] <text>", never filtered by the log
// level. <unit> is the base name, without extension, of the source file that
// holds the literal routine; fast kernels in other files name it explicitly.
#ifndef NPUCPU_IMPL_UTILS_OP_LOG_H
#define NPUCPU_IMPL_UTILS_OP_LOG_H

namespace npucpu {

// `unit` is a unit name or a source path (reduced to its base name without
// extension); `fmt` is the message text, usually ending in " \n".
void error_line(const char *unit, int line, const char *fmt, ...)
    __attribute__((format(printf, 3, 4)));

}  // namespace npucpu

// Error line attributed to the current source file.
#define NPU_ERROR(...) ::npucpu::error_line(__FILE__, __LINE__, __VA_ARGS__)
// Error line attributed to an explicit unit (fast kernels, shared helpers).
#define NPU_ERROR_AS(unit, ...) ::npucpu::error_line((unit), __LINE__, __VA_ARGS__)

#endif
