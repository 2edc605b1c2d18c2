// Table look-ups over 8-bit rows: the apply step of histogram matching and of
// contrast enhancement. The plain loop, and the layout plan that the vector
// forms (lut_x86.cpp, lut_neon.cpp) work from.
#include "kernels/variants.hpp"

namespace morven::kernels {

// Pixel by pixel, every byte of a pixel read before any is written.
void lutRowPlain(const LutLayout &layout, const uint8_t *src, uint8_t *dst, size_t pixels) {
    if (layout.stride == 1) {
        const uint8_t *t = layout.table[0];
        if (t)
            for (size_t i = 0; i < pixels; ++i) dst[i] = t[src[i]];
        return;
    }
    int pos[4];
    const uint8_t *tab[4];
    int m = 0;
    for (int k = 0; k < layout.stride; ++k)
        if (layout.table[k]) {
            pos[m] = k;
            tab[m] = layout.table[k];
            ++m;
        }
    const size_t step = static_cast<size_t>(layout.stride);
    if (m == 3) {
        const uint8_t *t0 = tab[0], *t1 = tab[1], *t2 = tab[2];
        const int p0 = pos[0], p1 = pos[1], p2 = pos[2];
        for (size_t i = 0; i < pixels; ++i, src += step, dst += step) {
            const uint8_t v0 = t0[src[p0]], v1 = t1[src[p1]], v2 = t2[src[p2]];
            dst[p0] = v0;
            dst[p1] = v1;
            dst[p2] = v2;
        }
        return;
    }
    for (size_t i = 0; i < pixels; ++i, src += step, dst += step) {
        uint8_t v[4];
        for (int k = 0; k < m; ++k) v[k] = tab[k][src[pos[k]]];
        for (int k = 0; k < m; ++k) dst[pos[k]] = v[k];
    }
}

LutPlan planOf(const LutLayout &layout) {
    LutPlan plan{};
    for (int k = 0; k < layout.stride; ++k) {
        const uint8_t *t = layout.table[k];
        plan.slot[k] = -1;
        if (!t) {
            plan.keeps = true;
            continue;
        }
        int i = 0;
        while (i < plan.count && plan.tables[i] != t) ++i;
        if (i == plan.count) plan.tables[plan.count++] = t;
        plan.slot[k] = i;
    }
    return plan;
}

}  // namespace morven::kernels
