// Depth to space: blocks of channels of an [N, C, H, W] float tensor moved
// into blocksize x blocksize spatial blocks, giving
// [N, C / blocksize^2, H * blocksize, W * blocksize], in CRD or DCR order.
#include <cstdint>
#include <string>

#include "npucpu.h"
#include "utils/convert.h"
#include "utils/dispatch.h"
#include "utils/op_context.h"
#include "utils/op_log.h"

namespace {

using npucpu::TensorInfo;

// The blocksize attribute; an absent one reads as 1 and fails the check.
int64_t read_blocksize(OperatorContext *handle) {
    return npucpu::attr_int(handle, "blocksize", 1);
}

// Where one input channel's H x W plane lands: output channel `channel`,
// row offset `dh` and column offset `dw` inside each block.
struct BlockPlace {
    uint32_t channel;
    uint32_t dh;
    uint32_t dw;
};

// CRD: the channel index splits as (output channel, dh, dw), outermost first.
inline BlockPlace place_crd(uint32_t c, uint32_t b, uint32_t bb) {
    return {c / bb, (c % bb) / b, c % b};
}

// DCR: the channel index splits as (dh, dw, output channel), outermost first.
inline BlockPlace place_dcr(uint32_t c, uint32_t b, uint32_t out_channels) {
    const uint32_t k = c / out_channels;
    const uint32_t dh = k / b;
    return {c - k * out_channels, dh, k - dh * b};
}

}  // namespace

extern "C" {

NPU_API uint32_t depth_to_space_infershape(OperatorContext *handle) {
    const TensorInfo in = npucpu::input_info(handle, 0);
    if (in.shape.dim_num != 4) {
        NPU_ERROR("invalid dim size: %d, DepthToSpace only support 4-D \n",
                  static_cast<int>(in.shape.dim_num));
        return NPU_FAIL;
    }
    const int64_t blocksize = read_blocksize(handle);
    if (blocksize < 2) {
        NPU_ERROR("blocksize should greater than 1 ! \n");
        return NPU_FAIL;
    }
    // blocksize is used as an unsigned 32-bit value; its square wraps and is
    // then compared with the channel count as signed 32-bit.
    const uint32_t b = static_cast<uint32_t>(blocksize);
    const int32_t bb = static_cast<int32_t>(b * b);
    const int32_t channels = static_cast<int32_t>(in.shape.dims[1]);
    int32_t rem = 0;
    int32_t out_channels = 0;
    // Guard: a square that wraps to 0 would divide by zero.
    if (!npucpu::checked_rem(channels, bb, &rem)) return NPU_ERR_INVALID_ARG;
    if (rem != 0) {
        NPU_ERROR("invalid blocksize: %d, can not be divided by input channels: %d \n",
                  static_cast<int32_t>(b), channels);
        return NPU_FAIL;
    }
    npucpu::checked_div(channels, bb, &out_channels);
    if (out_channels == 0) {
        NPU_ERROR("output channel / (blocksize * blocksize) can not be zero! \n");
        return NPU_FAIL;
    }
    TensorShape out{};
    out.dim_num = 4;
    out.dims[0] = in.shape.dims[0];
    out.dims[1] = static_cast<uint32_t>(out_channels);
    out.dims[2] = in.shape.dims[2] * b;
    out.dims[3] = in.shape.dims[3] * b;
    npucpu::set_output_desc(handle, 0, out, in.dtype, in.format);
    return NPU_OK;
}

NPU_API uint32_t depth_to_space_check_supported(OperatorContext *handle) {
    uint32_t dtype = 24;
    qv_kel_custom_get_input_dtype_by_index(handle, 0, &dtype);
    if (dtype == NPU_DTYPE_FLOAT32) return 1;
    NPU_ERROR("not support dtype: %d \n", static_cast<int>(dtype));
    return 0;
}

NPU_API uint32_t depth_to_space_compute(OperatorContext *handle) {
    const TensorInfo in = npucpu::input_info(handle, 0);
    const TensorInfo out = npucpu::output_info(handle, 0);
    const uint32_t out_channels = out.shape.dims[1];
    if (out_channels == 0) {
        NPU_ERROR("invalid output channel: %d \n", 0);
        return NPU_FAIL;
    }
    const int64_t blocksize = read_blocksize(handle);
    if (blocksize < 2) {
        NPU_ERROR("blocksize should greater than 1 ! \n");
        return NPU_FAIL;
    }
    const std::string mode = npucpu::attr_string(handle, "mode", 12, "");
    const bool crd = mode.size() >= 3 && mode[0] == 'C' && mode[1] == 'R' && mode[2] == 'D';

    const uint32_t batches = in.shape.dims[0];
    const uint32_t channels = in.shape.dims[1];
    const uint32_t height = in.shape.dims[2];
    const uint32_t width = in.shape.dims[3];
    if (batches == 0 || channels == 0 || height == 0 || width == 0) return NPU_OK;

    const uint32_t b = static_cast<uint32_t>(blocksize);
    const uint32_t bb = b * b;
    // Guard: a blocksize whose 32-bit value (CRD: whose wrapped square) is 0
    // would divide by zero.
    if (crd ? bb == 0 : b == 0) return NPU_ERR_INVALID_ARG;

    // Guard: a null buffer counts as empty; reads stop at the end of the
    // input buffer and writes outside the output buffer are skipped.
    const float *x = static_cast<const float *>(in.buf);
    float *y = static_cast<float *>(out.buf);
    const uint64_t in_elems = x == nullptr ? 0 : in.buf_len / sizeof(float);
    const uint64_t out_elems = y == nullptr ? 0 : out.buf_len / sizeof(float);

    const uint64_t out_width = out.shape.dims[3];
    const uint64_t out_plane = static_cast<uint64_t>(out.shape.dims[2]) * out_width;
    uint64_t i = 0;  // input elements are read in order
    const bool fast = npucpu::fast_paths_enabled();
    for (uint32_t n = 0; n < batches; ++n) {
        const uint64_t batch_base = static_cast<uint64_t>(n) * out_channels * out_plane;
        for (uint32_t c = 0; c < channels; ++c) {
            const BlockPlace at = crd ? place_crd(c, b, bb) : place_dcr(c, b, out_channels);
            const uint64_t plane_base = batch_base + at.channel * out_plane;
            if (fast && static_cast<uint64_t>(height) * width <= in_elems - i) {
                // Fast path: a plane whose every read and write lies inside
                // the buffers runs without the per-element checks, in the
                // same order. Its last write, computed without wrapping, is
                // its largest; below the buffer's length, no position of the
                // plane wraps in 64 bits either.
                using Wide = unsigned __int128;
                const Wide last =
                    (static_cast<Wide>(n) * out_channels + at.channel) * out_plane +
                    (static_cast<Wide>(height - 1) * b + at.dh) * out_width + static_cast<Wide>(width - 1) * b + at.dw;
                if (last < out_elems) {
                    const float *src = x + i;
                    for (uint32_t h = 0; h < height; ++h) {
                        float *dst = y + plane_base + (static_cast<uint64_t>(h) * b + at.dh) * out_width + at.dw;
                        for (uint32_t w = 0; w < width; ++w) dst[static_cast<uint64_t>(w) * b] = src[w];
                        src += width;
                    }
                    i += static_cast<uint64_t>(height) * width;
                    continue;
                }
            }
            for (uint32_t h = 0; h < height; ++h) {
                const uint64_t row = plane_base + (static_cast<uint64_t>(h) * b + at.dh) * out_width;
                for (uint32_t w = 0; w < width; ++w, ++i) {
                    if (i >= in_elems) return NPU_OK;
                    const uint64_t o = row + static_cast<uint64_t>(w) * b + at.dw;
                    if (o < out_elems) y[o] = x[i];
                }
            }
        }
    }
    return NPU_OK;
}

}  // extern "C"
