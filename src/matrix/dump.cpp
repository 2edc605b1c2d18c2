// Matrix dump files: a 16-byte little-endian header in the layout of
// wzMatrix32 (two zero pointer slots, nRows, nCols), then the elements in
// row order as one item.
#include <cstdint>
#include <cstdlib>

#include "common/memory.hpp"
#include "common/stream.hpp"
#include "matrix/matrix_internal.hpp"

using namespace morven;

namespace {

using MatrixDumpHeader = LE32Record<4>;
static_assert(MatrixDumpHeader::kBytes == sizeof(wzMatrix32));

// Largest element count a dump may announce: what wzMatrixCreate accepts.
constexpr int64_t kMaxDumpElements = INT32_MAX;

}  // namespace

extern "C" {

MORVEN_API wzStatus wzMatrixDumpSave(const wzMatrix *m, FILE *stream) {
    MatrixDumpHeader header;
    header.put(uint32_t{0});
    header.put(uint32_t{0});
    header.put(m->nRows);
    header.put(m->nCols);
    if (!header.write(stream)) return WZ_STATUS_FAILURE;
    // An empty block is an item of zero bytes, which counts as not written.
    const int64_t bytes = matrixElements(m->nRows, m->nCols) * int64_t{sizeof(double)};
    if (!writeItem(stream, m->data, static_cast<size_t>(bytes))) return WZ_STATUS_FAILURE;
    return WZ_STATUS_OK;
}

MORVEN_API wzMatrix *wzMatrixDumpLoad(FILE *stream) {
    FreePtr<wzMatrix> m = allocZeroed<wzMatrix>();
    if (!m) return nullptr;
    MatrixDumpHeader header;
    if (!header.read(stream)) return nullptr;
    (void)header.getU32();  // pointer slots, ignored
    (void)header.getU32();
    m->nRows = header.getI32();
    m->nCols = header.getI32();

    // Sizes in 64 bits; a negative size, no element at all (nothing to
    // read) or an absurd count is refused before the block is allocated.
    const int64_t count = matrixElements(m->nRows, m->nCols);
    if (count <= 0 || count > kMaxDumpElements) return nullptr;
    // Memory follows the data that arrives: a header cannot make the load
    // allocate far more than the stream holds.
    FreePtr<double> block(reinterpret_cast<double *>(
        readPayload(stream, count * static_cast<int64_t>(sizeof(double)))));
    if (!block) return nullptr;

    m->rowPtr = allocZeroedArray<double *>(m->nRows).release();
    if (!m->rowPtr) return nullptr;
    wzMatrixAssignData(m.get(), block.release());
    return m.release();
}

}  // extern "C"
