#include "builtin.h"

#include <math.h>
#include <stdlib.h>
#include <stdio.h>
#include <string.h>

/* A backbone shared by a classifier and a box head:
 *   image 1x3x40x40 -> resize to 32x32 -> conv 3x3 -> relu -> maxpool 2x2
 *   -> conv 3x3 stride 2 -> features 1x16x8x8
 *   classifier: global_averagepool -> flatten -> gemm -> softmax -> topk
 *   box head:   conv 1x1 -> 2 class maps on the 8x8 grid -> softmax over
 *               the classes -> nms against one 16x16 anchor box per cell */
static const char kPipeline[] =
    "input image\n"
    "input conv1_w\n"
    "input conv1_b\n"
    "input conv2_w\n"
    "input conv2_b\n"
    "input fc_w\n"
    "input fc_b\n"
    "input head_w\n"
    "input head_b\n"
    "input anchors\n"
    "const size int64 4 1,3,32,32\n"
    "const k int64 1 3\n"
    "const max_boxes int64 1 3\n"
    "const iou float32 1 0.5\n"
    "const min_score float32 1 0.6\n"
    "node resize image - - size -> x mode=linear coordinate_transformation_mode=half_pixel\n"
    "node conv x conv1_w conv1_b -> c1 kernel_shape=3,3 pads=1,1,1,1 strides=1,1"
    " auto_pad=NOTSET\n"
    "node relu c1 -> r1\n"
    "node maxpool r1 -> p1 kernel_shape=2,2 strides=2,2 pads=0,0,0,0 auto_pad=NOTSET\n"
    "node conv p1 conv2_w conv2_b -> features kernel_shape=3,3 pads=1,1,1,1 strides=2,2"
    " auto_pad=NOTSET\n"
    "node global_averagepool features -> pooled\n"
    "view pooled -> flat 1x16\n"
    "node gemm flat fc_w fc_b -> logits transB=1\n"
    "node softmax logits -> probs axis=1\n"
    "node topk probs k -> top_scores top_classes axis=1\n"
    "node conv features head_w head_b -> head kernel_shape=1,1 auto_pad=NOTSET\n"
    "view head -> head_cells 1x2x64\n"
    "node softmax head_cells -> cell_scores axis=1\n"
    "node nms anchors cell_scores max_boxes iou min_score -> boxes\n"
    "result top_scores top_classes boxes\n";

const char *builtin_pipeline(void) { return kPipeline; }

/* ---- embedded data -------------------------------------------------------- */

/* Deterministic pseudo-random numbers in [-1, 1): a 32-bit LCG. */
static float next_uniform(uint32_t *state) {
    *state = *state * 1664525u + 1013904223u;
    return (float)(*state >> 8) / 8388608.0f - 1.0f;
}

static void make_tensor(HostTensor *t, const char *name, uint8_t rank, const uint32_t *dims) {
    memset(t, 0, sizeof *t);
    snprintf(t->name, sizeof t->name, "%s", name);
    t->dtype = NPU_DTYPE_FLOAT32;
    t->format = NPU_FORMAT_NCHW;
    t->shape.dim_num = rank;
    for (uint8_t i = 0; i < rank; ++i) t->shape.dims[i] = dims[i];
    uint64_t n = shape_elements(&t->shape);
    t->len = n * sizeof(float);
    t->data = calloc((size_t)n, sizeof(float));
    t->owns_data = 1;
}

/* Weights scaled by gain/sqrt(fan_in): activations of order 1 in the
 * backbone, confident scores in the heads. */
static void fill_weights(HostTensor *t, uint32_t seed, uint32_t fan_in, float gain) {
    float *v = t->data;
    float scale = gain / sqrtf((float)fan_in);
    uint64_t n = shape_elements(&t->shape);
    for (uint64_t i = 0; i < n; ++i) v[i] = next_uniform(&seed) * scale;
}

/* A dim gradient with a bright red square and a bright blue square. */
static void fill_image(HostTensor *t) {
    float *v = t->data;
    const uint32_t size = 40;
    for (uint32_t c = 0; c < 3; ++c)
        for (uint32_t y = 0; y < size; ++y)
            for (uint32_t x = 0; x < size; ++x) {
                float value = 0.1f * (float)(x + y) / (float)size;
                if (c == 0 && x >= 6 && x < 18 && y >= 8 && y < 20) value = 1.0f;
                if (c == 2 && x >= 24 && x < 34 && y >= 22 && y < 32) value = 0.9f;
                v[(c * size + y) * size + x] = value;
            }
}

/* One anchor per cell of the 8x8 grid over the 32x32 image: a 16x16 box
 * centred on the cell, corners (y1, x1, y2, x2). */
static void fill_anchors(HostTensor *t) {
    float *v = t->data;
    for (uint32_t gy = 0; gy < 8; ++gy)
        for (uint32_t gx = 0; gx < 8; ++gx) {
            float cy = 4.0f * (float)gy + 2.0f, cx = 4.0f * (float)gx + 2.0f;
            float *box = v + (gy * 8 + gx) * 4;
            box[0] = cy - 8.0f;
            box[1] = cx - 8.0f;
            box[2] = cy + 8.0f;
            box[3] = cx + 8.0f;
        }
}

int builtin_tensor(const char *name, HostTensor *t) {
    static const struct {
        const char *name;
        uint8_t rank;
        uint32_t dims[4];
        uint32_t seed, fan_in; /* fan_in 0: not a weight */
        float gain;
    } kTensors[] = {
        {"image", 4, {1, 3, 40, 40}, 0, 0, 0},
        {"conv1_w", 4, {8, 3, 3, 3}, 11, 27, 2},
        {"conv1_b", 1, {8}, 12, 27, 1},
        {"conv2_w", 4, {16, 8, 3, 3}, 21, 72, 2},
        {"conv2_b", 1, {16}, 22, 72, 1},
        {"fc_w", 2, {10, 16}, 31, 16, 16},
        {"fc_b", 1, {10}, 32, 16, 1},
        {"head_w", 4, {2, 16, 1, 1}, 41, 16, 16},
        {"head_b", 1, {2}, 42, 16, 1},
        {"anchors", 3, {1, 64, 4}, 0, 0, 0},
    };
    for (size_t i = 0; i < sizeof kTensors / sizeof kTensors[0]; ++i) {
        if (strcmp(kTensors[i].name, name) != 0) continue;
        make_tensor(t, name, kTensors[i].rank, kTensors[i].dims);
        if (kTensors[i].fan_in != 0)
            fill_weights(t, kTensors[i].seed, kTensors[i].fan_in, kTensors[i].gain);
        else if (strcmp(name, "image") == 0)
            fill_image(t);
        else
            fill_anchors(t);
        return 0;
    }
    return -1;
}
