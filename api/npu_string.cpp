// Bounded strings: the small string object that holds output names.
#include <cstdlib>
#include <cstring>

#include "npucpu.h"

namespace {
constexpr int32_t kStrOk = 0;
constexpr int32_t kStrFail = -1;
bool owned(const NpuString *s) { return s->external == 0; }
}  // namespace

extern "C" {

NPU_API int32_t qv_npu_str_create(NpuString *s, uint64_t external) {
    if (s == nullptr) return kStrFail;
    s->data = nullptr;
    s->length = 0;
    s->external = external;
    return kStrOk;
}

NPU_API int32_t qv_npu_str_copy(NpuString *s, const char *text) {
    if (s == nullptr || text == nullptr) return kStrFail;
    if (s->data != nullptr && owned(s)) {
        std::free(s->data);
        s->data = nullptr;
    }
    s->length = std::strlen(text) + 1;
    if (owned(s)) {
        s->data = static_cast<char *>(std::calloc(s->length, 1));
        if (s->data == nullptr) {
            s->length = 0;
            return kStrFail;
        }
    } else if (s->data == nullptr) {
        return kStrFail;  // an external string needs the caller's buffer
    }
    std::memcpy(s->data, text, s->length);
    s->data[s->length - 1] = '\0';
    return kStrOk;
}

NPU_API int32_t qv_npu_str_cat(NpuString *s, const char *text) {
    if (s == nullptr || text == nullptr) return kStrFail;
    if (owned(s)) {
        size_t add = std::strlen(text);
        uint64_t size = s->length != 0 ? s->length + add : add + 1;
        char *grown = static_cast<char *>(std::calloc(size, 1));
        if (grown == nullptr) return kStrFail;
        if (s->data != nullptr) {
            std::memcpy(grown, s->data, s->length);
            std::free(s->data);
        }
        std::memcpy(grown + (s->length != 0 ? s->length - 1 : 0), text, add);
        s->data = grown;
        s->length = size;
    }
    // An external string is not appended to: only its terminator is rewritten.
    if (s->data == nullptr || s->length == 0) return owned(s) ? kStrOk : kStrFail;
    s->data[s->length - 1] = '\0';
    return kStrOk;
}

NPU_API int32_t qv_npu_str_rpc(NpuString *s, char from, char to) {
    if (s == nullptr || s->data == nullptr) return kStrFail;
    // A length of 0 cannot come from these routines; treat it like empty
    // text rather than scanning without bound.
    if (s->length <= 1) return kStrOk;
    for (uint64_t i = 0; i + 1 < s->length; ++i) {
        if (static_cast<int8_t>(s->data[i]) == static_cast<int8_t>(from)) s->data[i] = to;
    }
    return kStrOk;
}

NPU_API int32_t qv_npu_str_destory(NpuString *s) {
    if (s == nullptr) return kStrFail;
    if (owned(s) && s->data != nullptr) {
        std::free(s->data);
        s->data = nullptr;
    }
    return kStrOk;
}

}  // extern "C"
