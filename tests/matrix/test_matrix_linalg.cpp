// Matrix arithmetic, decompositions, solvers, SVD and pseudo-inverse: worked
// cases, refusals (nothing written on a mismatch), the product bit for bit
// against the plain loop, and randomized checks of independent properties:
// P A = L U, Q^T Q = I, residuals, U diag(w) V^T = A, A^T A V = V diag(w^2)
// and the Moore-Penrose conditions.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <memory>
#include <random>
#include <vector>

#include "kernels/kernel_support.hpp"
#include "matrix/matrix_internal.hpp"
#include "morven/matrix.h"

namespace {

using kernel_test::availableIsas;

struct Release {
    void operator()(wzMatrix *m) const { wzMatrixRelease(&m); }
};
// An owned matrix that passes as wzMatrix * (do not test it as a bool).
struct Mat : std::unique_ptr<wzMatrix, Release> {
    using unique_ptr::unique_ptr;
    operator wzMatrix *() const { return get(); }
};
using Vec = std::vector<double>;
constexpr wzStatus kFail = 0xFFFFFFFFu;

Mat make(int32_t r, int32_t c, const Vec &v = {}, double fill = 0.0) {
    Mat m(wzMatrixCreate(r, c));
    std::fill_n(m->data, int64_t{r} * c, fill);
    std::copy(v.begin(), v.end(), m->data);
    return m;
}

Vec elements(const wzMatrix *m) { return Vec(m->data, m->data + int64_t{m->nRows} * m->nCols); }

Mat copyOf(const wzMatrix *m) { return make(m->nRows, m->nCols, elements(m)); }

// Uniform in [-1, 1), or over 2^±spread so that a changed summation order
// shows in the bits.
Mat random(int32_t r, int32_t c, std::mt19937 &rng, int spread = 0) {
    std::uniform_real_distribution<double> u(-1.0, 1.0);
    std::uniform_int_distribution<int> e(-spread, spread);
    Mat m = make(r, c);
    for (int64_t k = 0; k < int64_t{r} * c; ++k) m->data[k] = std::ldexp(u(rng), e(rng));
    return m;
}

Mat product(const wzMatrix *a, const wzMatrix *b) {
    Mat d = make(a->nRows, b->nCols);
    EXPECT_EQ(wzMatrixProduct(d, a, b), 0u);
    return d;
}

Mat transpose(const wzMatrix *a) {
    Mat t = make(a->nCols, a->nRows);
    EXPECT_EQ(wzMatrixTranspose(t, a), 0u);
    return t;
}

// The two comparisons below read matrices made by make() through data.
double maxAbsDiff(const wzMatrix *a, const wzMatrix *b) {
    double d = 0.0;
    for (int64_t k = 0; k < int64_t{a->nRows} * a->nCols; ++k) {
        const double e = std::fabs(a->data[k] - b->data[k]);
        d = std::isnan(e) ? INFINITY : std::max(d, e);  // a NaN never passes
    }
    return d;
}

double gramError(const wzMatrix *q) {  // max |Q^T Q - I|
    return maxAbsDiff(product(transpose(q), q), Mat(wzMatrixCreateIdentity(q->nCols)));
}

bool sameBits(const wzMatrix *a, const wzMatrix *b) {
    const Vec x = elements(a), y = elements(b);
    return a->nRows == b->nRows && x.size() == y.size() &&
           !std::memcmp(x.data(), y.data(), sizeof(double) * x.size());
}

// Refusals (nothing written), an empty inner size (cleared), and bit-for-bit
// equality with the plain triple loop on sizes around the register tiles
// (4 x 8), row blocks (128) and panel depth (256), for both kernels and the
// transposed-operand form.
TEST(MatrixArith, ProductRefusalsAndPlainLoop) {
    Mat a = make(2, 3), b = make(3, 2), d = make(2, 2), wrong = make(2, 3, {}, 7.0),
        d2 = make(2, 2, {}, 5.0);
    EXPECT_EQ(wzMatrixProduct_MP(wrong, a, b), kFail);
    EXPECT_EQ(wzMatrixProduct(d, a, make(2, 2)), kFail);  // inner 3 vs 2
    EXPECT_EQ(elements(wrong), Vec(6, 7.0));
    EXPECT_EQ(wzMatrixProduct(d2, make(2, 0), make(0, 2)), 0u);
    EXPECT_EQ(elements(d2), Vec(4, 0.0));
    EXPECT_EQ(wzMatrixProduct(make(0, 0), make(0, 3), make(3, 0)), 0u);

    std::mt19937 rng(11);
    const int32_t shapes[][3] = {{1, 1, 1},     {3, 5, 7},     {4, 256, 8},   {5, 257, 9},
                                 {13, 300, 17}, {130, 64, 64}, {65, 513, 31}, {2, 1, 33}};
    for (auto &s : shapes) {
        Mat x = random(s[0], s[1], rng, 20), y = random(s[1], s[2], rng, 20), xt = transpose(x);
        Mat plain = make(s[0], s[2]), p = make(s[0], s[2], {}, NAN);
        for (int32_t i = 0; i < s[0]; ++i)
            for (int32_t j = 0; j < s[2]; ++j) {
                double sum = 0.0;
                for (int32_t k = 0; k < s[1]; ++k) sum += x->rowPtr[i][k] * y->rowPtr[k][j];
                plain->rowPtr[i][j] = sum;
            }
        ASSERT_EQ((s[1] % 2 ? wzMatrixProduct : wzMatrixProduct_MP)(p, x, y), 0u);
        EXPECT_TRUE(sameBits(p, plain)) << s[0] << "x" << s[1] << "x" << s[2];
        for (morven::Isa isa : availableIsas()) {  // every kernel this processor runs
            Mat k1 = make(s[0], s[2], {}, NAN), k2 = make(s[0], s[2], {}, NAN);
            morven::kernelsFor(isa).product(*k1, *x, *y, false);
            morven::kernelsFor(isa).product(*k2, *xt, *y, true);
            EXPECT_TRUE(sameBits(k1, plain) && sameBits(k2, plain)) << int(isa);
        }
    }
}

// The transpose over a full band of eight rows and a partial one, on a header
// whose row table runs backwards over its block (operations must follow
// rowPtr, not data); a wrong shape is refused unwritten.
TEST(MatrixArith, TransposeAndRowPointers) {
    std::mt19937 rng(3);
    Mat src = random(11, 6, rng), b = random(6, 5, rng), t = make(2, 3, {}, 4.0);
    Vec block(66);
    wzMatrix *rev = wzMatrixCreateHeader(11, 6);
    rev->data = block.data();
    for (int32_t i = 0; i < 11; ++i) {
        rev->rowPtr[i] = block.data() + 6 * (10 - i);
        std::memcpy(rev->rowPtr[i], src->rowPtr[i], 6 * sizeof(double));
    }
    Mat tr = transpose(rev);
    for (int32_t i = 0; i < 11; ++i)
        for (int32_t j = 0; j < 6; ++j) ASSERT_EQ(tr->rowPtr[j][i], src->rowPtr[i][j]);
    EXPECT_TRUE(sameBits(product(rev, b), product(src, b)));
    wzMatrixReleaseHeader(&rev);
    EXPECT_EQ(wzMatrixTranspose(t, make(2, 3)), kFail);
    EXPECT_EQ(elements(t), Vec(6, 4.0));
}

// Each element-wise operation against its formula and in place (the same
// bits); on a mismatch 1 for the pointwise product, 0xFFFFFFFF otherwise, and
// nothing written; empty matrices of matching shapes: 0.
TEST(MatrixArith, PointwiseScalarAdditionInPlace) {
    std::mt19937 rng(8);
    Mat a = random(7, 5, rng), b = random(7, 5, rng), pw = make(7, 5), sc = make(7, 5),
        ad = make(7, 5);
    ASSERT_EQ(wzMatrixPointwiseProduct(pw, a, b) | wzMatrixScalarProduct(sc, a, -2.5) |
                  wzMatrixAddition(ad, a, b),
              0u);
    for (int k = 0; k < 35; ++k) {
        const double x = a->data[k], y = b->data[k];
        EXPECT_TRUE(pw->data[k] == x * y && sc->data[k] == x * -2.5 && ad->data[k] == x + y) << k;
    }
    Mat a1 = copyOf(a), a2 = copyOf(a), b3 = copyOf(b);
    ASSERT_EQ(wzMatrixPointwiseProduct(a1, a1, b) | wzMatrixScalarProduct(a2, a2, -2.5) |
                  wzMatrixAddition(b3, a, b3),
              0u);
    EXPECT_TRUE(sameBits(a1, pw) && sameBits(a2, sc) && sameBits(b3, ad));

    Mat odd = make(5, 7), keep = make(7, 5, {}, 3.0), e = make(3, 0);
    EXPECT_EQ(wzMatrixPointwiseProduct(keep, a, odd), 1u);
    EXPECT_EQ(wzMatrixScalarProduct(keep, odd, 2.0), kFail);
    EXPECT_EQ(wzMatrixAddition(keep, odd, a), kFail);
    EXPECT_EQ(elements(keep), Vec(35, 3.0));
    EXPECT_EQ(wzMatrixPointwiseProduct(e, e, e) | wzMatrixScalarProduct(e, e, 2.0) |
                  wzMatrixAddition(e, e, e),
              0u);
}

// Rows or columns against the per-line formula, wider than one block of
// column sums, in and out of place; a zero line stays untouched (not 0/0).
TEST(MatrixArith, Normalize) {
    std::mt19937 rng(4);
    for (int32_t by : {0, 1}) {
        Mat s = random(6, 300, rng, 20), out = make(6, 300);
        for (int32_t k = 0; k < 300; ++k)
            s->rowPtr[2][k] = s->rowPtr[k % 6][7] = 0.0;  // a zero row and column
        Mat in = copyOf(s);
        ASSERT_EQ(wzMatrixNormalize(s, out, by) | wzMatrixNormalize(in, in, by), 0u);
        EXPECT_TRUE(sameBits(in, out));
        const int32_t lines = by ? 300 : 6, len = by ? 6 : 300;
        for (int32_t l = 0; l < lines; ++l) {
            auto at = [&](const Mat &m, int32_t k) {
                return by ? m->rowPtr[k][l] : m->rowPtr[l][k];
            };
            double sum = 0.0;
            for (int32_t k = 0; k < len; ++k) sum += at(s, k) * at(s, k);
            for (int32_t k = 0; k < len; ++k)
                ASSERT_EQ(at(out, k), sum == 0.0 ? 0.0 : at(s, k) / std::sqrt(sum));
        }
    }
    EXPECT_EQ(wzMatrixNormalize(make(2, 2), make(2, 3), 1), kFail);
}

// LU: on equal magnitudes the first row stays, the compact form, singular and
// mismatched input (1, nothing written), then P A = L U with |L| <= 1 on
// random matrices (B = I receives the row swaps as P). QR: a wrong R
// shape is refused unwritten; random matrices give the documented arithmetic
// exactly (a plain Gram-Schmidt written here, so Q^T Q = I and Q R = A follow).
TEST(MatrixDecomposition, LUAndQR) {
    Mat a = make(2, 2, {0, 1, 1, 0}), l = make(2, 2), u = make(2, 2);
    Mat a2 = make(2, 2, {2, 1, 2, 3}), b2 = make(2, 0);
    ASSERT_EQ(wzMatrixLUDecomposition(a2, l, u, b2), 0u);
    EXPECT_TRUE(elements(l) == (Vec{1, 0, 1, 1}) && elements(u) == (Vec{2, 1, 0, 2}));
    ASSERT_EQ(wzMatrixLUDecomposition(a2, u, u, b2), 0u);  // multipliers below the diagonal
    EXPECT_EQ(elements(u), (Vec{2, 1, 1, 2}));
    Mat z = make(3, 3, {1, 0, 2, 3, 0, 4, 5, 0, 6}), z3 = make(3, 3), b3 = make(3, 1),
        keep = make(2, 2, {}, 7.0);
    EXPECT_EQ(wzMatrixLUDecomposition(z, make(3, 3), z3, b3), 1u);  // a zero column
    EXPECT_EQ(wzMatrixLUDecomposition(a, keep, u, b3), 1u);
    EXPECT_EQ(wzMatrixLUDecomposition(z, keep, z3, b3), 1u);
    EXPECT_EQ(elements(keep), Vec(4, 7.0));

    std::mt19937 rng(21);
    for (int32_t n : {1, 2, 3, 7, 16, 41}) {
        Mat x = random(n, n, rng), lo = make(n, n), up = make(n, n), p(wzMatrixCreateIdentity(n));
        ASSERT_EQ(wzMatrixLUDecomposition(x, lo, up, p), 0u);  // p receives the permutation
        for (int32_t i = 0; i < n; ++i)
            for (int32_t j = 0; j < n;
                 ++j)  // unit lower L with |L| <= 1 (partial pivoting), upper U
                EXPECT_TRUE((j >= i ? lo : up)->rowPtr[i][j] == (j == i ? 1.0 : 0.0) &&
                            std::fabs(lo->rowPtr[i][j]) <= 1.0);
        EXPECT_LT(maxAbsDiff(product(p, x), product(lo, up)), 1e-13 * n);
    }

    Mat r2 = make(3, 2, {}, 5.0);
    EXPECT_EQ(wzMatrixQRDecomposition(make(3, 3), make(3, 3), r2), kFail);
    EXPECT_EQ(elements(r2), Vec(6, 5.0));
    for (int32_t n : {1, 2, 5, 12, 30}) {
        Mat x = random(n, n, rng), qn = make(n, n), rn = make(n, n), gs = make(n, n);
        ASSERT_EQ(wzMatrixQRDecomposition(x, qn, rn), 0u);
        // The documented arithmetic, bit for bit: classical Gram-Schmidt with
        // coefficients taken against A's column, then R = Q^T A in full.
        auto Q = [&](int32_t i, int32_t j) -> double & { return gs->rowPtr[i][j]; };
        for (int32_t j = 0; j < n; ++j) {
            for (int32_t i = 0; i < n; ++i) Q(i, j) = x->rowPtr[i][j];
            for (int32_t k = 0; k < j; ++k) {
                double num = 0.0, den = 0.0;
                for (int32_t i = 0; i < n; ++i)
                    num += Q(i, k) * x->rowPtr[i][j], den += Q(i, k) * Q(i, k);
                for (int32_t i = 0; i < n; ++i) Q(i, j) -= Q(i, k) * (num / den);
            }
            double norm = 0.0;
            for (int32_t i = 0; i < n; ++i) norm += Q(i, j) * Q(i, j);
            for (int32_t i = 0; i < n; ++i) Q(i, j) /= std::sqrt(norm);
        }
        EXPECT_TRUE(sameBits(qn, gs) && sameBits(rn, product(transpose(gs), x))) << n;
    }
}

// Random triangles with NaN wherever nothing may be read (the other half,
// and the diagonal when diag replaces it), four columns solved in place; the
// shape rules.
TEST(MatrixSubstitution, DiagRuleTrianglesAndShapes) {
    std::mt19937 rng(9);
    const int32_t n = 23;
    for (bool forward : {true, false})
        for (double diag : {0.0, 1.0, -2.0}) {
            Mat t = random(n, n, rng), tri = make(n, n), rhs = random(n, 4, rng), sol = copyOf(rhs);
            for (int32_t i = 0; i < n; ++i)
                for (int32_t j = 0; j < n; ++j) {
                    const bool inside = forward ? j <= i : j >= i;
                    if (j == i)
                        tri->rowPtr[i][j] = diag != 0.0 ? diag : 2.0 + i % 3;
                    else if (inside)
                        tri->rowPtr[i][j] = t->rowPtr[i][j];
                    t->rowPtr[i][j] = inside && (j != i || diag == 0.0) ? tri->rowPtr[i][j] : NAN;
                }
            const auto solve = forward ? wzMatrixForwardSubstitution : wzMatrixBackwardSubstitution;
            ASSERT_EQ(solve(t, sol, sol, diag), 0u);
            EXPECT_LT(maxAbsDiff(product(tri, sol), rhs), 1e-12);
        }

    // Order 0 reads nothing; no column returns 0; mismatches return 1.
    Mat u = make(2, 2), e = make(0, 0), e3 = make(0, 3), b0 = make(2, 0), x3 = make(2, 2, {}, 6.0),
        r = make(3, 2);
    EXPECT_EQ(wzMatrixForwardSubstitution(e, e3, e3, 0.0) |
                  wzMatrixBackwardSubstitution(e, e3, e3, 0.0) |
                  wzMatrixForwardSubstitution(u, b0, b0, 0.0),
              0u);
    EXPECT_EQ(wzMatrixForwardSubstitution(u, make(2, 1), x3, 0.0), 1u);
    EXPECT_EQ(wzMatrixBackwardSubstitution(u, r, r, 0.0), 1u);
    EXPECT_EQ(elements(x3), Vec(4, 6.0));
}

// Random systems: A X = B to rounding, the least-squares residual orthogonal
// to A's columns, a caller's work matrices (they receive A^T A and A^T B; the
// results do not change). Refused: a singular A, X or work of the wrong
// shape; for least squares fewer rows than columns (nothing written), a
// too-small scratch block, a wrong X.
TEST(MatrixSolve, SquareAndLeastSquares) {
    std::mt19937 rng(31);
    for (int32_t n : {1, 3, 10, 37}) {
        Mat A = random(n, n, rng), B = random(n, 3, rng), X = make(n, 3);
        ASSERT_EQ(wzMatrixSolveLinearSystem(A, X, B, n % 2 ? make(n, n) : Mat()),
                  0u);  // a work matrix or none
        EXPECT_LT(maxAbsDiff(product(A, X), B), 1e-11);
    }
    for (auto [m, n] : {std::pair{3, 2}, std::pair{5, 5}, std::pair{20, 4}, std::pair{60, 13}}) {
        Mat A = random(m, n, rng), B = random(m, 2, rng), X = make(n, 2), X2 = make(n, 2),
            At = transpose(A);
        Mat w2 = make(n, n), w3 = make(n, 2);
        ASSERT_EQ(wzMatrixLinearSystemLeastSquares(A, X, B, make(m, n), w2, w3), 0u);
        ASSERT_EQ(wzMatrixLinearSystemLeastSquares(A, X2, B, nullptr, nullptr, nullptr), 0u);
        EXPECT_EQ(elements(X), elements(X2));
        EXPECT_TRUE(elements(w2) == elements(product(At, A)) &&
                    elements(w3) == elements(product(At, B)));
        EXPECT_LT(maxAbsDiff(product(product(At, A), X), product(At, B)),
                  1e-11);  // A^T (A X - B) = 0
        EXPECT_EQ(wzMatrixLinearSystemLeastSquares(A, X, B, make(1, n), nullptr, nullptr), 1u);
        EXPECT_EQ(wzMatrixLinearSystemLeastSquares(A, make(n, 1), B, nullptr, nullptr, nullptr),
                  1u);
    }
    Mat a = random(2, 2, rng), b = random(2, 1, rng), x = make(2, 1), xw = make(3, 1, {}, 8.0);
    EXPECT_EQ(wzMatrixSolveLinearSystem(make(2, 2, {1, 2, 2, 4}), x, b, nullptr), 1u);
    EXPECT_EQ(wzMatrixSolveLinearSystem(a, make(2, 2), b, nullptr), 1u);
    EXPECT_EQ(wzMatrixSolveLinearSystem(a, x, b, make(3, 3)), 1u);
    EXPECT_EQ(
        wzMatrixLinearSystemLeastSquares(make(2, 3), xw, make(2, 1), nullptr, nullptr, nullptr),
        1u);
    EXPECT_EQ(elements(xw), Vec(3, 8.0));
}

// Offset arrays with negative bounds: indices nl..nh usable (and v[nl - 1],
// inside the block), consecutive rows; empty or overflowing ranges refused;
// null release harmless.
TEST(MatrixSvd, OffsetArrays) {
    double *v = vector(-2, 2), **m = matrix(-1, 1, 3, 4);
    ASSERT_TRUE(v && m);
    EXPECT_TRUE(m[0] == m[-1] + 2 && m[1] == m[0] + 2);
    for (int i = -3; i <= 2; ++i) v[i] = i;  // every element (the sanitizers watch the bounds)
    for (int r = -1; r <= 1; ++r) m[r][3] = m[r][4] = r;
    free_vector(v, -2, 2);
    free_vector(nullptr, 1, 3);
    free_matrix(m, -1, 1, 3, 4);
    EXPECT_TRUE(vector(5, 4) == nullptr && matrix(2, 1, 0, 0) == nullptr &&
                matrix(0, INT64_MAX, 0, INT64_MAX) == nullptr);
}

struct Svd {
    Mat u, w, v;
    int32_t status;
};

Svd decompose(const wzMatrix *a) {
    Svd s{make(a->nRows, a->nCols), make(a->nCols, 1), make(a->nCols, a->nCols), 0};
    s.status = wzMatrixSVDDecomposition(a, s.u, s.w, s.v);
    return s;
}

Mat reconstruct(const Svd &s) {  // U diag(w) V^T
    Mat uw = make(s.u->nRows, s.u->nCols);
    for (int32_t i = 0; i < uw->nRows; ++i)
        for (int32_t j = 0; j < uw->nCols; ++j) uw->rowPtr[i][j] = s.u->rowPtr[i][j] * s.w->data[j];
    return product(uw, transpose(s.v));
}

// diag(3, -2) gives 3 and 2 in that order; non-finite input fails (a NaN norm
// estimate never passes a split test). Then, on full-rank and rank-deficient
// random matrices: reconstruction, non-negative values, orthogonal V (and U
// when m >= n; otherwise it has n - m null columns), the columns of V as
// eigenvectors of A^T A with the squared values (so the values are the
// singular values whatever U holds), and the same bits from in-place
// rotations and from the loops of every instruction set here.
TEST(MatrixSvd, WorkedAndRandomFactorisations) {
    Mat d = make(2, 2, {3, 0, 0, -2});
    const Svd s = decompose(d);
    ASSERT_EQ(s.status, 0);
    EXPECT_EQ(elements(s.w), (Vec{3, 2}));
    EXPECT_EQ(decompose(make(3, 3, {}, NAN)).status, 1);
    EXPECT_EQ(decompose(make(2, 2, {1, INFINITY, 2, 3})).status, 1);

    std::mt19937 rng(2024);
    const int32_t shapes[][2] = {{1, 1}, {1, 4},   {4, 1},   {5, 3},  {3, 5},
                                 {8, 8}, {40, 25}, {25, 40}, {64, 64}};
    for (auto &sh : shapes)
        for (bool deficient : {false, true}) {
            const int32_t m = sh[0], n = sh[1];
            Mat a = random(m, n, rng);
            if (deficient && m > 2)  // a repeated row and a zero row
                for (int32_t j = 0; j < n; ++j)
                    a->rowPtr[1][j] = a->rowPtr[0][j], a->rowPtr[2][j] = 0.0;
            Svd r = decompose(a);
            ASSERT_EQ(r.status, 0) << m << "x" << n;
            const double tol = 1e-13 * std::max(m, n);
            EXPECT_LT(maxAbsDiff(reconstruct(r), a), tol) << m << "x" << n;
            EXPECT_TRUE(std::all_of(r.w->data, r.w->data + n, [](double x) { return x >= 0.0; }));
            EXPECT_LT(gramError(r.v), tol);
            EXPECT_LT(m >= n ? gramError(r.u) : 0.0, tol);
            Mat vw = copyOf(r.v);
            double top = 1.0;
            for (int32_t j = 0; j < n; ++j) {
                top = std::max(top, r.w->data[j] * r.w->data[j]);
                for (int32_t i = 0; i < n; ++i) vw->rowPtr[i][j] *= r.w->data[j] * r.w->data[j];
            }
            EXPECT_LT(maxAbsDiff(product(product(transpose(a), a), r.v), vw), tol * top);
            for (morven::Isa isa : availableIsas())
                for (bool staged : {false, true}) {
                    Svd t{copyOf(a), make(n, 1), make(n, n), 0};
                    ASSERT_EQ(morven::svdDecompose(morven::kernelsFor(isa),
                                                   morven::oneBefore(t.u->rowPtr), m, n,
                                                   morven::oneBefore(t.w->data),
                                                   morven::oneBefore(t.v->rowPtr), staged),
                              0);
                    EXPECT_TRUE(sameBits(t.u, r.u) && sameBits(t.w, r.w) && sameBits(t.v, r.v))
                        << int(isa) << " staged " << staged;
                }
        }
}

// Worked: a zero singular value is skipped, a row's pseudo-inverse, a P of
// another shape stays unwritten. Then the four Moore-Penrose conditions on
// square and tall matrices (padded zero columns give singular values of
// exactly 0; padded rows of a wide matrix can leave tiny non-zero values,
// which are inverted on purpose).
TEST(MatrixPseudoInverse, WorkedAndMoorePenrose) {
    Mat a = make(2, 2, {2, 0, 0, 0}), p = make(2, 2, {}, 9.0), col = make(2, 1),
        wrong = make(2, 3, {}, 4.0);
    ASSERT_EQ(wzMatrixPseudoInverse(a, p), 0u);
    EXPECT_EQ(elements(p), (Vec{0.5, 0, 0, 0}));
    ASSERT_EQ(wzMatrixPseudoInverse(make(1, 2, {3, 4}), col), 0u);
    EXPECT_LT(maxAbsDiff(col, make(2, 1, {0.12, 0.16})), 1e-16);
    EXPECT_EQ(wzMatrixPseudoInverse(a, wrong), 0u);
    EXPECT_EQ(elements(wrong), Vec(6, 4.0));

    std::mt19937 rng(77);
    for (auto [m, n] : {std::pair{1, 1}, std::pair{4, 4}, std::pair{30, 30}, std::pair{6, 3},
                        std::pair{5, 1}, std::pair{20, 11}}) {
        Mat x = random(m, n, rng), px = make(n, m);
        ASSERT_EQ(wzMatrixPseudoInverse(x, px), 0u);
        Mat ap = product(x, px), pa = product(px, x);
        EXPECT_LT(std::max({maxAbsDiff(product(ap, x), x), maxAbsDiff(product(pa, px), px),
                            maxAbsDiff(transpose(ap), ap), maxAbsDiff(transpose(pa), pa)}),
                  1e-11)
            << m << "x" << n;
    }
}

}  // namespace
