// Resize: scales the two innermost axes of a float32 tensor of rank 1 to 4 by
// nearest, bilinear or bicubic sampling.
//
// Inputs: 0 X, 1 roi (tf_crop_and_resize only), 2 scales (float32 per axis),
// 3 sizes (int64 per axis). The output shape comes from scales, else sizes;
// the sampling itself always uses the ratio of output to input extent.
// Infershape and compute return 0 in every case: a host recognises a failed
// infershape by the output it left unset.
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "npucpu.h"
#include "utils/convert.h"
#include "utils/dispatch.h"
#include "utils/resize_taps.h"
#include "utils/op_context.h"
#include "utils/op_log.h"

namespace {

using npucpu::TensorInfo;

constexpr uint32_t kMaxInputs = 4;
constexpr uint32_t kMaxRank = 4;
constexpr uint32_t kRoiInput = 1;
constexpr uint32_t kScalesInput = 2;
constexpr uint32_t kSizesInput = 3;

// String attributes are read into kTextLen + 1 zero-filled bytes.
constexpr uint64_t kTextLen = 32;

// Name tables; a name's position is its code.
const char *const kCoordinateModes[] = {
    "half_pixel", "pytorch_half_pixel", "align_corners",
    "asymmetric", "tf_half_pixel_for_nn", "tf_crop_and_resize",
};
const char *const kRoundingModes[] = {"round_prefer_floor", "round_prefer_ceil", "floor", "ceil"};
const char *const kSamplingModes[] = {"nearest", "linear", "cubic"};

constexpr uint32_t kTfCropAndResize = 5;
constexpr uint32_t kNearest = 0;
constexpr uint32_t kLinear = 1;
constexpr uint32_t kCubic = 2;
constexpr uint32_t kNoMatch = UINT32_MAX;

// Code of the first table name that `text` starts with, or kNoMatch.
template <size_t N>
uint32_t match_prefix(const char *text, const char *const (&names)[N]) {
    for (uint32_t i = 0; i < N; ++i) {
        if (std::strncmp(text, names[i], std::strlen(names[i])) == 0) return i;
    }
    return kNoMatch;
}

// Elements of a list input: its declared count, limited to what its buffer
// holds (guard: a short buffer is never read past its end).
uint64_t list_length(const TensorInfo &t, uint64_t elem_bytes) {
    const uint64_t declared = npucpu::element_count(t.shape);
    const uint64_t held = t.buf_len / elem_bytes;
    return declared < held ? declared : held;
}

template <typename T>
T load(const void *buf, uint64_t index) {
    T v;
    std::memcpy(&v, static_cast<const char *>(buf) + index * sizeof(T), sizeof(T));
    return v;
}

struct ResizeAttrs {
    uint32_t coordinate = 0;  // coordinate transformation mode code
    uint32_t sampling = kNearest;
    uint32_t rounding = 0;    // nearest rounding mode code
    float cubic_a = 0.0f;
};

// Reads the attributes in the operator's fixed order. One text buffer serves
// every string attribute; a getter that finds its attribute absent leaves
// the buffer as it was (zero-filled, or the previous attribute's text).
ResizeAttrs read_attrs(OperatorContext *handle) {
    AttrRecord *coordinate = qv_kel_custom_get_attr_by_name(handle, "coordinate_transformation_mode");
    AttrRecord *cubic_a = qv_kel_custom_get_attr_by_name(handle, "cubic_coeff_a");
    // exclude_outside and extrapolation_value are looked up but have no effect:
    // samples outside the image repeat the edge.
    (void)qv_kel_custom_get_attr_by_name(handle, "exclude_outside");
    (void)qv_kel_custom_get_attr_by_name(handle, "extrapolation_value");
    AttrRecord *mode = qv_kel_custom_get_attr_by_name(handle, "mode");
    AttrRecord *nearest_mode = qv_kel_custom_get_attr_by_name(handle, "nearest_mode");

    ResizeAttrs attrs;
    char text[kTextLen + 1] = {};
    qv_kel_custom_get_attr_string(coordinate, text, kTextLen);
    const uint32_t coordinate_code = match_prefix(text, kCoordinateModes);
    attrs.coordinate = coordinate_code == kNoMatch ? 0 : coordinate_code;

    // The rounding attribute counts only when a mode attribute is present
    // and selects nearest sampling (or nothing known).
    if (mode != nullptr) {
        qv_kel_custom_get_attr_string(mode, text, kTextLen);
        const uint32_t sampling = match_prefix(text, kSamplingModes);
        if (sampling == kLinear || sampling == kCubic) {
            attrs.sampling = sampling;
        } else {
            qv_kel_custom_get_attr_string(nearest_mode, text, kTextLen);
            const uint32_t rounding = match_prefix(text, kRoundingModes);
            attrs.rounding = rounding == kNoMatch ? 0 : rounding;
        }
    }
    if (attrs.sampling == kCubic) qv_kel_custom_get_attr_float(cubic_a, &attrs.cubic_a);
    return attrs;
}

// The plane that is resized and how many planes there are, by rank.
struct PlaneGeometry {
    uint32_t in_h = 0;
    uint32_t in_w = 0;
    uint32_t out_h = 0;
    uint32_t out_w = 0;
    uint64_t planes = 0;  // batches x channels, both taken from the output
};

PlaneGeometry plane_geometry(const TensorShape &in, const TensorShape &out) {
    PlaneGeometry g;
    switch (out.dim_num) {
        case 1:
            g.in_h = 1;
            g.in_w = in.dims[0];
            g.out_h = 1;
            g.out_w = out.dims[0];
            g.planes = 1;
            break;
        case 2:
            g.in_h = in.dims[0];
            g.in_w = in.dims[1];
            g.out_h = out.dims[0];
            g.out_w = out.dims[1];
            g.planes = 1;
            break;
        case 3:
            g.in_h = in.dims[1];
            g.in_w = in.dims[2];
            g.out_h = out.dims[1];
            g.out_w = out.dims[2];
            g.planes = out.dims[0];
            break;
        default:
            g.in_h = in.dims[2];
            g.in_w = in.dims[3];
            g.out_h = out.dims[2];
            g.out_w = out.dims[3];
            g.planes = static_cast<uint64_t>(out.dims[0]) * out.dims[1];
            break;
    }
    return g;
}

// A malloc'ed array released on every path.
template <typename T>
struct Scratch {
    explicit Scratch(uint64_t n)
        : data(static_cast<T *>(std::malloc(static_cast<size_t>(n > 0 ? n : 1) * sizeof(T)))) {}
    ~Scratch() { std::free(data); }
    Scratch(const Scratch &) = delete;
    Scratch &operator=(const Scratch &) = delete;
    T *data;
};

uint64_t min_u64(uint64_t a, uint64_t b) { return a < b ? a : b; }

// Walks the planes and writes output pixels in order, one running index,
// planes back to back. Stops at the end of the output buffer. `sample(plane,
// oy, ox)` gives one output pixel; `prepare(plane)` runs before each plane.
template <typename Prepare, typename Sample>
void walk_planes(float *in, float *out, const PlaneGeometry &g, uint64_t planes,
                 uint64_t out_cap, Prepare prepare, Sample sample) {
    const uint64_t plane_in = static_cast<uint64_t>(g.in_h) * g.in_w;
    uint64_t o = 0;
    for (uint64_t p = 0; p < planes; ++p) {
        float *plane = in + p * plane_in;
        prepare(plane);
        for (uint32_t oy = 0; oy < g.out_h; ++oy) {
            for (uint32_t ox = 0; ox < g.out_w; ++ox) {
                if (o >= out_cap) return;
                out[o++] = sample(plane, oy, ox);
            }
        }
    }
}

}  // namespace

extern "C" {

NPU_API uint32_t resize_infershape(OperatorContext *handle) {
    const uint32_t n = npucpu::input_count(handle);
    if (n == 0 || n > kMaxInputs) {
        NPU_ERROR("invalid input_num:%d \n", static_cast<int>(n));
        return NPU_OK;
    }
    TensorInfo in[kMaxInputs];
    for (uint32_t i = 0; i < n; ++i) in[i] = npucpu::input_info(handle, i);

    const uint32_t d = in[0].shape.dim_num;
    if (d > kMaxRank || in[0].dtype != NPU_DTYPE_FLOAT32) {
        NPU_ERROR("invalid input dims:%d, dtype:%d \n", static_cast<int>(d),
                  static_cast<int>(in[0].dtype));
        return NPU_OK;
    }

    // Scales win over sizes; a list shorter than the rank counts as absent.
    TensorShape out{};
    out.dim_num = static_cast<uint8_t>(d);
    const TensorInfo &scales = in[kScalesInput];
    const TensorInfo &sizes = in[kSizesInput];
    if (scales.buf != nullptr && list_length(scales, sizeof(float)) >= d) {
        for (uint32_t k = 0; k < d; ++k) {
            const float extent = static_cast<float>(static_cast<int32_t>(in[0].shape.dims[k]));
            const float product = extent * load<float>(scales.buf, k);
            out.dims[k] = static_cast<uint32_t>(npucpu::saturate_floor<int32_t>(product));
        }
    } else if (sizes.buf != nullptr && list_length(sizes, sizeof(int64_t)) >= d) {
        for (uint32_t k = 0; k < d; ++k) {
            out.dims[k] = static_cast<uint32_t>(load<int64_t>(sizes.buf, k));  // low 32 bits
        }
    } else {
        NPU_ERROR("either scales or sizes is valid! \n");
        return NPU_OK;
    }
    npucpu::set_output_desc(handle, 0, out, in[0].dtype, in[0].format);
    return NPU_OK;
}

NPU_API uint32_t resize_check_supported(OperatorContext *handle) {
    (void)handle;
    return 1;
}

NPU_API uint32_t resize_compute(OperatorContext *handle) {
    const ResizeAttrs attrs = read_attrs(handle);

    const TensorInfo x = npucpu::input_info(handle, 0);
    const TensorInfo y = npucpu::output_info(handle, 0);
    // Guards: a rank above 4, a non-float input, an output rank that differs
    // from the input's or an empty input plane cannot be sampled, and missing
    // buffers cannot be read or written; all write nothing.
    if (x.shape.dim_num > kMaxRank || x.dtype != NPU_DTYPE_FLOAT32 ||
        y.shape.dim_num != x.shape.dim_num) {
        return NPU_OK;
    }
    const PlaneGeometry g = plane_geometry(x.shape, y.shape);
    if (g.in_h == 0 || g.in_w == 0 || x.buf == nullptr || y.buf == nullptr) return NPU_OK;

    // Guard: only whole input planes inside the input buffer are read, and
    // writing stops at the end of the output buffer.
    const uint64_t plane_in = static_cast<uint64_t>(g.in_h) * g.in_w;
    const uint64_t planes = min_u64(g.planes, x.buf_len / sizeof(float) / plane_in);
    const uint64_t out_cap = y.buf_len / sizeof(float);
    if (planes == 0 || out_cap == 0) return NPU_OK;
    float *in = static_cast<float *>(x.buf);
    float *out = static_cast<float *>(y.buf);

    const float scale_h = GetAxisScale(attrs.coordinate, g.in_h, g.out_h, 1);
    const float scale_w = GetAxisScale(attrs.coordinate, g.in_w, g.out_w, 1);

    float start_h = 0.0f, end_h = 1.0f, start_w = 0.0f, end_w = 1.0f;
    if (attrs.coordinate == kTfCropAndResize) {
        const TensorInfo roi = npucpu::input_info(handle, kRoiInput);
        // Guard: never more values than the roi buffer holds.
        const uint64_t count = min_u64(roi.shape.dims[0], roi.buf_len / sizeof(float));
        ParseRoiData(static_cast<const float *>(roi.buf), static_cast<uint32_t>(count), &start_h,
                     &end_h, &start_w, &end_w);
    }

    // A source row depends only on the output row and a source column only
    // on the output column, so both are mapped once per call. No row or
    // column at or past the output buffer's capacity is ever used.
    const uint64_t rows_used = min_u64(g.out_h, out_cap);
    const uint64_t cols_used = min_u64(g.out_w, out_cap);

    if (attrs.sampling == kNearest) {
        Scratch<uint32_t> src_y(rows_used);
        Scratch<uint32_t> src_x(cols_used);
        if (src_y.data == nullptr || src_x.data == nullptr) return NPU_OK;
        uint32_t unused = 0;
        for (uint32_t oy = 0; oy < rows_used; ++oy) {
            GetNearestPixelCoordinate(attrs.coordinate, attrs.rounding, oy, 0, &src_y.data[oy],
                                      &unused, g.in_h, g.in_w, g.out_h, g.out_w, scale_h, scale_w,
                                      start_h, end_h, start_w, end_w);
        }
        for (uint32_t ox = 0; ox < cols_used; ++ox) {
            GetNearestPixelCoordinate(attrs.coordinate, attrs.rounding, 0, ox, &unused,
                                      &src_x.data[ox], g.in_h, g.in_w, g.out_h, g.out_w, scale_h,
                                      scale_w, start_h, end_h, start_w, end_w);
        }
        walk_planes(
            in, out, g, planes, out_cap, [](float *) {},
            [&](float *plane, uint32_t oy, uint32_t ox) {
                return plane[static_cast<uint64_t>(src_y.data[oy]) * g.in_w + src_x.data[ox]];
            });
        return NPU_OK;
    }

    // Bilinear and bicubic sampling read the plane through a row table; the
    // samplers only read, so the rows point straight into the input.
    Scratch<float *> rows(g.in_h);
    Scratch<float> src_y(rows_used);
    Scratch<float> src_x(cols_used);
    if (rows.data == nullptr || src_y.data == nullptr || src_x.data == nullptr) return NPU_OK;
    for (uint32_t oy = 0; oy < rows_used; ++oy) {
        src_y.data[oy] = CoordinateMapping(attrs.coordinate, oy, g.in_h, g.out_h, scale_h, start_h,
                                           end_h);
    }
    for (uint32_t ox = 0; ox < cols_used; ++ox) {
        src_x.data[ox] = CoordinateMapping(attrs.coordinate, ox, g.in_w, g.out_w, scale_w, start_w,
                                           end_w);
    }
    auto point_rows = [&](float *plane) {
        for (uint32_t r = 0; r < g.in_h; ++r) {
            rows.data[r] = plane + static_cast<uint64_t>(r) * g.in_w;
        }
    };
    // Fast rows where every output element is written (the literal walk
    // stops at the output buffer's end).
    if (npucpu::active_isa() >= npucpu::Isa::Avx2 && rows_used == g.out_h &&
        cols_used == g.out_w && planes * g.out_h * g.out_w <= out_cap &&
        planes * g.out_h * g.out_w > 0) {
        const bool done =
            attrs.sampling == kLinear
                ? npucpu::resize_bilinear_fast(in, out, planes, g.in_h, g.in_w, g.out_h, g.out_w,
                                               src_y.data, src_x.data)
                : npucpu::resize_cubic_fast(in, out, planes, g.in_h, g.in_w, g.out_h, g.out_w,
                                            src_y.data, src_x.data, attrs.cubic_a);
        if (done) return NPU_OK;
    }
    if (attrs.sampling == kLinear) {
        walk_planes(in, out, g, planes, out_cap, point_rows,
                    [&](float *, uint32_t oy, uint32_t ox) {
                        return BiLinearInterpolation(rows.data, g.in_h, g.in_w, src_x.data[ox],
                                                     src_y.data[oy]);
                    });
    } else {
        walk_planes(in, out, g, planes, out_cap, point_rows,
                    [&](float *, uint32_t oy, uint32_t ox) {
                        return CubicInterpolation(rows.data, g.in_h, g.in_w, attrs.cubic_a,
                                                  src_y.data[oy], src_x.data[ox]);
                    });
    }
    return NPU_OK;
}

}  // extern "C"
