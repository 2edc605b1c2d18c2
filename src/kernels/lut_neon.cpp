// Table look-ups on ARM64 (the plain loop and the plan are in lut.cpp). A
// 256-entry table is four 64-byte quarters; tbl looks up the first quarter
// (0 for indices past it) and tbx each further one with the index lowered by
// 64, 128 and 192 (leaving the lanes whose lowered index is past the quarter
// as they were). Interleaved pixels are split into planes by ld3/ld4, looked
// up plane by plane and stored back by st3/st4.
#include "kernels/neon.hpp"
#include "kernels/variants.hpp"

#if MORVEN_NEON

namespace morven::kernels {
namespace {

using namespace neon;

struct Table {
    uint8x16x4_t q[4];
};

inline Table loadTable(const uint8_t *t) {
    return Table{{vld1q_u8_x4(t), vld1q_u8_x4(t + 64), vld1q_u8_x4(t + 128), vld1q_u8_x4(t + 192)}};
}

inline uint8x16_t lookup(const Table &t, uint8x16_t idx) {
    uint8x16_t r = vqtbl4q_u8(t.q[0], idx);
    r = vqtbx4q_u8(r, t.q[1], vsubq_u8(idx, vdupq_n_u8(64)));
    r = vqtbx4q_u8(r, t.q[2], vsubq_u8(idx, vdupq_n_u8(128)));
    return vqtbx4q_u8(r, t.q[3], vsubq_u8(idx, vdupq_n_u8(192)));
}

// 16 pixels per step; a byte position without a table keeps the
// destination's byte. Returns the pixels done.
template <int Stride>
size_t lutPixels(const LutPlan &plan, const Table *tabs, const uint8_t *src, uint8_t *dst,
                 size_t pixels) {
    size_t i = 0;
    for (; i + 16 <= pixels; i += 16) {
        const uint8x16x4_t v = loadPixels(src + Stride * i, Stride);
        uint8x16x4_t out = plan.keeps ? loadPixels(dst + Stride * i, Stride) : v;
        for (int k = 0; k < Stride; ++k)
            if (plan.slot[k] >= 0) out.val[k] = lookup(tabs[plan.slot[k]], v.val[k]);
        storePixels(dst + Stride * i, Stride, out);
    }
    return i;
}

}  // namespace

void lutRowNeon(const LutLayout &layout, const uint8_t *src, uint8_t *dst, size_t pixels) {
    const LutPlan plan = planOf(layout);
    if (plan.count == 0) return;
    Table tabs[4];
    for (int k = 0; k < plan.count; ++k) tabs[k] = loadTable(plan.tables[k]);
    const size_t stride = static_cast<size_t>(layout.stride);
    size_t done = 0;
    if (stride == 1) {
        for (; done + 16 <= pixels; done += 16)
            vst1q_u8(dst + done, lookup(tabs[0], vld1q_u8(src + done)));
    } else if (stride == 3) {
        done = lutPixels<3>(plan, tabs, src, dst, pixels);
    } else if (stride == 4) {
        done = lutPixels<4>(plan, tabs, src, dst, pixels);
    }
    if (done < pixels) lutRowPlain(layout, src + done * stride, dst + done * stride, pixels - done);
}

}  // namespace morven::kernels

#endif  // MORVEN_NEON
