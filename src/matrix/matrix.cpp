// The matrix record: creation and release, the identity, the two views
// between matrices and images, and the conversion to and from the layout
// with 32-bit pointer slots.
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "common/memory.hpp"
#include "morven/matrix.h"

using namespace morven;

namespace {

// Row-pointer table of n entries, zero-filled (one entry at least, so that
// a zero row count still gives a record).
double **newRowTable(int32_t nRows) { return allocZeroedArray<double *>(nRows).release(); }

// rowPtr[i] = block + i * nCols for the first nRows rows. A null block gives
// null row pointers (there is nothing to point into).
void setRows(wzMatrix &m, double *block) {
    m.data = block;
    for (int32_t i = 0; i < m.nRows; ++i)
        m.rowPtr[i] = block ? block + static_cast<ptrdiff_t>(i) * m.nCols : nullptr;
}

}  // namespace

extern "C" {

MORVEN_API wzMatrix *wzMatrixCreateHeader(int32_t nRows, int32_t nCols) {
    if (nRows < 0) return nullptr;
    FreePtr<wzMatrix> m = allocZeroed<wzMatrix>();
    if (!m) return nullptr;
    m->rowPtr = newRowTable(nRows);
    if (!m->rowPtr) return nullptr;
    m->nRows = nRows;
    m->nCols = nCols;
    return m.release();
}

MORVEN_API void wzMatrixAssignData(wzMatrix *m, double *block) { setRows(*m, block); }

MORVEN_API wzMatrix *wzMatrixCreate(int32_t nRows, int32_t nCols) {
    // The element count is a signed 32-bit product; one that is negative or
    // does not fit is refused before anything is allocated, so a wrapped
    // product can never size the block.
    int64_t count = 0;
    if (!checkedMul(nRows, nCols, count) || count > INT32_MAX) return nullptr;
    FreePtr<wzMatrix> m = allocZeroed<wzMatrix>();
    if (!m) return nullptr;
    FreePtr<double *> rows(newRowTable(nRows));
    if (!rows) return nullptr;
    FreePtr<double> block = allocZeroedArray<double>(count);
    if (!block) return nullptr;
    m->rowPtr = rows.release();
    m->nRows = nRows;
    m->nCols = nCols;
    setRows(*m, block.release());
    return m.release();
}

MORVEN_API wzMatrix *wzMatrixCreateIdentity(int32_t n) {
    wzMatrix *m = wzMatrixCreate(n, n);
    if (!m) return nullptr;
    std::memset(m->data, 0, static_cast<size_t>(n) * static_cast<size_t>(n) * sizeof(double));
    for (int32_t i = 0; i < n; ++i) m->rowPtr[i][i] = 1.0;
    return m;
}

MORVEN_API void wzMatrixReleaseHeader(wzMatrix **m) {
    releaseRecord(m, [](wzMatrix &x) { std::free(x.rowPtr); });
}

MORVEN_API void wzMatrixRelease(wzMatrix **m) {
    releaseRecord(m, [](wzMatrix &x) {
        std::free(x.rowPtr);
        std::free(x.data);
    });
}

MORVEN_API void wzMatrixSetImageWrap(const wzMatrix *m, wzImage *image) {
    image->type = wzType64F;
    image->encoding = wzEncodingGray;
    image->height = m->nRows;
    image->width = m->nCols;
    image->roi = wzRect{0, 0, m->nCols, m->nRows};
    image->data = reinterpret_cast<uint8_t *>(m->data);
}

MORVEN_API void wzImageSetMatrixWrap(const wzImage *image, wzMatrix *m) {
    m->nRows = image->height;
    m->nCols = image->width;
    // cppcheck-suppress invalidPointerCast ; the block of a 64F image holds doubles
    setRows(*m, reinterpret_cast<double *>(image->data));
}

MORVEN_API void wzMatrixCvtTo32(const wzMatrix *m, wzMatrix32 *out) {
    out->data = 0;
    out->rowPtr = 0;
    out->nRows = m->nRows;
    out->nCols = m->nCols;
}

MORVEN_API void wzMatrixCvtFrom32(const wzMatrix32 *in, wzMatrix *out) {
    out->data = nullptr;
    out->rowPtr = nullptr;
    out->nRows = in->nRows;
    out->nCols = in->nCols;
}

}  // extern "C"
