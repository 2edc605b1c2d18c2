// Matrix dump loads on arbitrary bytes: a loaded matrix saves back to the
// bytes it was read from (pointer slots excepted), and small square ones go
// through the decompositions, whatever their elements (NaN and infinities
// included), which must stay inside their arrays.
#include <initializer_list>

#include "fuzz_support.hpp"
#include "morven/morven.h"

namespace {

void decompose(const wzMatrix *a) {
    const int32_t m = a->nRows, n = a->nCols;
    wzMatrix *b = wzMatrixCreate(m, 1);
    wzMatrix *x = wzMatrixCreate(n, 1);
    wzMatrix *p = wzMatrixCreate(n, m);
    wzMatrix *u = wzMatrixCreate(m, n);
    wzMatrix *w = wzMatrixCreate(n, 1);
    wzMatrix *v = wzMatrixCreate(n, n);
    FUZZ_CHECK(b && x && p && u && w && v);
    for (int32_t i = 0; i < m; ++i) b->data[i] = 1.0 + i;
    if (m == n) {
        const wzStatus solved = wzMatrixSolveLinearSystem(a, x, b, nullptr);
        FUZZ_CHECK(solved == 0 || solved == 1);
    }
    const wzStatus fitted = wzMatrixLinearSystemLeastSquares(a, x, b, nullptr, nullptr, nullptr);
    FUZZ_CHECK(fitted == 0 || fitted == 1);
    const int32_t svd = wzMatrixSVDDecomposition(a, u, w, v);
    FUZZ_CHECK(svd == 0 || svd == 1);
    const wzStatus inverted = wzMatrixPseudoInverse(a, p);
    FUZZ_CHECK(inverted == 0 || inverted == 1);
    for (wzMatrix **mat : {&b, &x, &p, &u, &w, &v}) wzMatrixRelease(mat);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    std::FILE *in = fuzz::openInput(data, size);
    if (!in) return 0;
    for (int dump = 0; dump < 4; ++dump) {
        const long start = std::ftell(in);
        wzMatrix *m = wzMatrixDumpLoad(in);
        if (!m) break;
        const long end = std::ftell(in);
        FUZZ_CHECK(m->nRows > 0 && m->nCols > 0);
        for (int32_t i = 0; i < m->nRows; ++i)
            FUZZ_CHECK(m->rowPtr[i] == m->data + int64_t{i} * m->nCols);

        fuzz::Output saved;
        FUZZ_CHECK(wzMatrixDumpSave(m, saved.stream()) == 0);
        saved.finish();
        fuzz::checkRoundTrip(data + start, size_t(end - start), saved, 0, 8);

        if (m->nRows <= 12 && m->nCols <= 12) decompose(m);
        wzMatrixRelease(&m);
    }
    std::fclose(in);
    return 0;
}
