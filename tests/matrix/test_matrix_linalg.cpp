// Matrix arithmetic, decompositions, solvers, SVD and pseudo-inverse: the
// worked cases, shape checks (nothing written on a mismatch), bit-for-bit
// agreement with the plain loops, and randomized checks of P A = L U,
// Q^T Q = I, U diag(w) V^T = A, singular values against LAPACK and the
// Moore-Penrose conditions.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <initializer_list>
#include <memory>
#include <random>
#include <vector>

#include "matrix/matrix_internal.hpp"
#include "morven/matrix.h"

#ifdef MORVEN_TEST_HAVE_LAPACK
extern "C" void dgesvd_(const char *jobu, const char *jobvt, const int *m, const int *n, double *a,
                        const int *lda, double *s, double *u, const int *ldu, double *vt,
                        const int *ldvt, double *work, const int *lwork, int *info, size_t, size_t);
#endif

namespace {

struct Release {
    void operator()(wzMatrix *m) const { wzMatrixRelease(&m); }
};
using Mat = std::unique_ptr<wzMatrix, Release>;
using Vec = std::vector<double>;

Mat make(int32_t r, int32_t c, std::initializer_list<double> v = {}, double fill = 0.0) {
    Mat m(wzMatrixCreate(r, c));
    std::fill_n(m->data, int64_t{r} * c, fill);
    std::copy(v.begin(), v.end(), m->data);
    return m;
}

// Uniform in [-1, 1), or over 2^±spread so that a changed summation order
// shows in the bits.
Mat random(int32_t r, int32_t c, std::mt19937 &rng, int spread = 0) {
    std::uniform_real_distribution<double> u(-1.0, 1.0);
    std::uniform_int_distribution<int> e(-spread, spread);
    Mat m = make(r, c);
    for (int64_t k = 0; k < int64_t{r} * c; ++k) m->data[k] = std::ldexp(u(rng), e(rng));
    return m;
}

Vec elements(const wzMatrix *m) { return Vec(m->data, m->data + int64_t{m->nRows} * m->nCols); }

Mat product(const wzMatrix *a, const wzMatrix *b) {
    Mat d = make(a->nRows, b->nCols);
    EXPECT_EQ(wzMatrixProduct(d.get(), a, b), 0u);
    return d;
}

Mat transpose(const wzMatrix *a) {
    Mat t = make(a->nCols, a->nRows);
    EXPECT_EQ(wzMatrixTranspose(t.get(), a), 0u);
    return t;
}

double maxAbsDiff(const wzMatrix *a, const wzMatrix *b) {
    double d = 0.0;
    for (int32_t i = 0; i < a->nRows; ++i)
        for (int32_t j = 0; j < a->nCols; ++j)
            d = std::max(d, std::fabs(a->rowPtr[i][j] - b->rowPtr[i][j]));
    return d;
}

double offIdentity(const wzMatrix *gram) {  // max |G - I|
    Mat eye(wzMatrixCreateIdentity(gram->nRows));
    return maxAbsDiff(gram, eye.get());
}

bool sameBits(const wzMatrix *a, const wzMatrix *b) {
    if (a->nRows != b->nRows || a->nCols != b->nCols) return false;
    for (int32_t i = 0; i < a->nRows; ++i)
        if (std::memcmp(a->rowPtr[i], b->rowPtr[i], sizeof(double) * a->nCols)) return false;
    return true;
}

// ---------------------------------------------------------------------------
// Arithmetic

TEST(MatrixArith, ProductWorkedShapesAndEmpty) {
    Mat a = make(2, 3, {1, 2, 3, 4, 5, 6}), b = make(3, 2, {7, 8, 9, 10, 11, 12}), d = make(2, 2);
    EXPECT_EQ(wzMatrixProduct(d.get(), a.get(), b.get()), 0u);
    EXPECT_EQ(elements(d.get()), (Vec{58, 64, 139, 154}));

    Mat wrong = make(2, 3, {}, 7.0);
    EXPECT_EQ(wzMatrixProduct(wrong.get(), a.get(), b.get()), 0xFFFFFFFFu);
    EXPECT_EQ(wzMatrixProduct_MP(wrong.get(), a.get(), b.get()), 0xFFFFFFFFu);
    EXPECT_EQ(wzMatrixProduct(d.get(), a.get(), a.get()), 0xFFFFFFFFu);  // inner 3 vs 2
    EXPECT_EQ(elements(wrong.get()), Vec(6, 7.0));

    // Inner size 0 clears; an empty destination is fine.
    Mat a0 = make(2, 0), b0 = make(0, 2), d2 = make(2, 2, {}, 5.0), e = make(0, 3), f = make(3, 0);
    EXPECT_EQ(wzMatrixProduct(d2.get(), a0.get(), b0.get()), 0u);
    EXPECT_EQ(elements(d2.get()), Vec(4, 0.0));
    Mat g = make(0, 0);
    EXPECT_EQ(wzMatrixProduct(g.get(), e.get(), f.get()), 0u);
}

TEST(MatrixArith, ProductMatchesPlainLoopBitForBit) {
    std::mt19937 rng(11);
    // Sizes around the register tiles (4 x 8), row blocks (128) and panel
    // depth (256).
    const int32_t shapes[][3] = {{1, 1, 1},    {3, 5, 7},     {4, 256, 8},    {5, 257, 9},
                                 {13, 300, 17}, {130, 64, 64}, {65, 513, 31}, {2, 1, 33}};
    for (auto &s : shapes) {
        Mat a = random(s[0], s[1], rng, 20), b = random(s[1], s[2], rng, 20);
        Mat plain = make(s[0], s[2]), at = transpose(a.get());
        for (int32_t i = 0; i < s[0]; ++i)
            for (int32_t j = 0; j < s[2]; ++j) {
                double sum = 0.0;
                for (int32_t k = 0; k < s[1]; ++k) sum += a->rowPtr[i][k] * b->rowPtr[k][j];
                plain->rowPtr[i][j] = sum;
            }
        Mat d = make(s[0], s[2], {}, NAN), mp = make(s[0], s[2], {}, NAN);
        ASSERT_EQ(wzMatrixProduct(d.get(), a.get(), b.get()), 0u);
        ASSERT_EQ(wzMatrixProduct_MP(mp.get(), a.get(), b.get()), 0u);
        EXPECT_TRUE(sameBits(d.get(), plain.get())) << s[0] << "x" << s[1] << "x" << s[2];
        EXPECT_TRUE(sameBits(mp.get(), plain.get()));
        // The kernel of processors without wide vectors, and the form with a
        // transposed left operand.
        for (bool portable : {false, true}) {
            Mat p1 = make(s[0], s[2], {}, NAN), p2 = make(s[0], s[2], {}, NAN);
            morven::productKernel(*p1, *a, *b, false, portable);
            morven::productKernel(*p2, *at, *b, true, portable);
            EXPECT_TRUE(sameBits(p1.get(), plain.get()) && sameBits(p2.get(), plain.get())) << portable;
        }
    }
}

TEST(MatrixArith, TransposeAndRowPointers) {
    std::mt19937 rng(3);
    for (auto [r, c] : {std::pair{1, 1}, std::pair{37, 19}, std::pair{8, 16}, std::pair{3, 70}}) {
        Mat s = random(r, c, rng), t = transpose(s.get());
        for (int32_t i = 0; i < r; ++i)
            for (int32_t j = 0; j < c; ++j) ASSERT_EQ(t->rowPtr[j][i], s->rowPtr[i][j]);
    }
    Mat s = make(2, 3), t = make(2, 3, {}, 4.0);
    EXPECT_EQ(wzMatrixTranspose(t.get(), s.get()), 0xFFFFFFFFu);
    EXPECT_EQ(elements(t.get()), Vec(6, 4.0));

    // A header whose row table runs backwards over its block: operations
    // must follow rowPtr, not data.
    Mat src = random(9, 6, rng), b = random(6, 5, rng);
    Vec block(54);
    wzMatrix *rev = wzMatrixCreateHeader(9, 6);
    rev->data = block.data();
    for (int32_t i = 0; i < 9; ++i) {
        rev->rowPtr[i] = block.data() + 6 * (8 - i);
        std::memcpy(rev->rowPtr[i], src->rowPtr[i], 6 * sizeof(double));
    }
    EXPECT_TRUE(sameBits(product(rev, b.get()).get(), product(src.get(), b.get()).get()));
    EXPECT_TRUE(sameBits(transpose(rev).get(), transpose(src.get()).get()));
    wzMatrixReleaseHeader(&rev);
}

TEST(MatrixArith, PointwiseScalarAdditionInPlace) {
    std::mt19937 rng(8);
    Mat a = random(7, 5, rng), b = random(7, 5, rng), pw = make(7, 5), sc = make(7, 5), ad = make(7, 5);
    ASSERT_EQ(wzMatrixPointwiseProduct(pw.get(), a.get(), b.get()), 0u);
    ASSERT_EQ(wzMatrixScalarProduct(sc.get(), a.get(), -2.5), 0u);
    ASSERT_EQ(wzMatrixAddition(ad.get(), a.get(), b.get()), 0u);
    for (int k = 0; k < 35; ++k) {
        EXPECT_EQ(pw->data[k], a->data[k] * b->data[k]);
        EXPECT_EQ(sc->data[k], a->data[k] * -2.5);
        EXPECT_EQ(ad->data[k], a->data[k] + b->data[k]);
    }
    // In place (the destination is an operand): the same results.
    Mat a1 = make(7, 5), a2 = make(7, 5), a3 = make(7, 5);
    for (wzMatrix *m : {a1.get(), a2.get(), a3.get()}) std::memcpy(m->data, a->data, 35 * 8);
    EXPECT_EQ(wzMatrixPointwiseProduct(a1.get(), a1.get(), b.get()), 0u);
    EXPECT_EQ(wzMatrixScalarProduct(a2.get(), a2.get(), -2.5), 0u);
    EXPECT_EQ(wzMatrixAddition(a3.get(), b.get(), a3.get()), 0u);
    EXPECT_TRUE(sameBits(a1.get(), pw.get()) && sameBits(a2.get(), sc.get()) && sameBits(a3.get(), ad.get()));

    // Mismatches: 1 for the pointwise product, 0xFFFFFFFF otherwise; nothing
    // written. Empty matrices of matching shapes: 0.
    Mat odd = make(5, 7), keep = make(7, 5, {}, 3.0), e = make(3, 0);
    EXPECT_EQ(wzMatrixPointwiseProduct(keep.get(), a.get(), odd.get()), 1u);
    EXPECT_EQ(wzMatrixScalarProduct(keep.get(), odd.get(), 2.0), 0xFFFFFFFFu);
    EXPECT_EQ(wzMatrixAddition(keep.get(), odd.get(), a.get()), 0xFFFFFFFFu);
    EXPECT_EQ(elements(keep.get()), Vec(35, 3.0));
    EXPECT_EQ(wzMatrixPointwiseProduct(e.get(), e.get(), e.get()), 0u);
    EXPECT_EQ(wzMatrixScalarProduct(e.get(), e.get(), 2.0), 0u);
    EXPECT_EQ(wzMatrixAddition(e.get(), e.get(), e.get()), 0u);
}

TEST(MatrixArith, Normalize) {
    Mat r = make(2, 2, {3, 4, 0, 0}), d = make(2, 2, {}, 9.0);
    EXPECT_EQ(wzMatrixNormalize(r.get(), d.get(), 0), 0u);
    EXPECT_EQ(elements(d.get()), (Vec{0.6, 0.8, 9, 9}));  // a zero row stays untouched
    Mat c = make(2, 2, {3, 0, 4, 0}), dc = make(2, 2, {}, 9.0), bad = make(2, 3);
    EXPECT_EQ(wzMatrixNormalize(c.get(), dc.get(), 1), 0u);
    EXPECT_EQ(elements(dc.get()), (Vec{0.6, 9, 0.8, 9}));
    EXPECT_EQ(wzMatrixNormalize(c.get(), bad.get(), 1), 0xFFFFFFFFu);

    // Random, wider than one block of column sums, in and out of place,
    // against the per-line formula.
    std::mt19937 rng(4);
    for (int32_t by : {0, 1}) {
        Mat s = random(6, 300, rng, 20), out = make(6, 300), in = make(6, 300);
        std::memcpy(in->data, s->data, sizeof(double) * 1800);
        ASSERT_EQ(wzMatrixNormalize(s.get(), out.get(), by), 0u);
        ASSERT_EQ(wzMatrixNormalize(in.get(), in.get(), by), 0u);
        EXPECT_TRUE(sameBits(in.get(), out.get()));
        const int32_t lines = by ? 300 : 6, len = by ? 6 : 300;
        for (int32_t l = 0; l < lines; ++l) {
            auto at = [&](const Mat &m, int32_t k) { return by ? m->rowPtr[k][l] : m->rowPtr[l][k]; };
            double sum = 0.0;
            for (int32_t k = 0; k < len; ++k) sum += at(s, k) * at(s, k);
            for (int32_t k = 0; k < len; ++k) ASSERT_EQ(at(out, k), at(s, k) / std::sqrt(sum));
        }
    }
}

// ---------------------------------------------------------------------------
// Decompositions and solvers

TEST(MatrixLU, WorkedPivotCases) {
    // A swap: L = I, U = I, and B's rows exchanged.
    Mat a = make(2, 2, {0, 1, 1, 0}), l = make(2, 2), u = make(2, 2), b = make(2, 3, {1, 2, 3, 4, 5, 6});
    ASSERT_EQ(wzMatrixLUDecomposition(a.get(), l.get(), u.get(), b.get()), 0u);
    EXPECT_EQ(elements(l.get()), (Vec{1, 0, 0, 1}));
    EXPECT_EQ(elements(u.get()), (Vec{1, 0, 0, 1}));
    EXPECT_EQ(elements(b.get()), (Vec{4, 5, 6, 1, 2, 3}));

    // Equal magnitudes: the first row stays the pivot. Then the compact form
    // in one record: the multipliers stay below the diagonal.
    Mat a2 = make(2, 2, {2, 1, 2, 3}), b2 = make(2, 0);
    ASSERT_EQ(wzMatrixLUDecomposition(a2.get(), l.get(), u.get(), b2.get()), 0u);
    EXPECT_EQ(elements(l.get()), (Vec{1, 0, 1, 1}));
    EXPECT_EQ(elements(u.get()), (Vec{2, 1, 0, 2}));
    ASSERT_EQ(wzMatrixLUDecomposition(a2.get(), u.get(), u.get(), b2.get()), 0u);
    EXPECT_EQ(elements(u.get()), (Vec{2, 1, 1, 2}));

    // A zero column is singular; shape mismatches return 1 and write nothing.
    Mat z = make(3, 3, {1, 0, 2, 3, 0, 4, 5, 0, 6}), l3 = make(3, 3), u3 = make(3, 3), b3 = make(3, 1);
    EXPECT_EQ(wzMatrixLUDecomposition(z.get(), l3.get(), u3.get(), b3.get()), 1u);
    Mat keep = make(2, 2, {}, 7.0);
    EXPECT_EQ(wzMatrixLUDecomposition(a.get(), keep.get(), u.get(), b3.get()), 1u);
    EXPECT_EQ(wzMatrixLUDecomposition(z.get(), keep.get(), u3.get(), b3.get()), 1u);
    EXPECT_EQ(elements(keep.get()), Vec(4, 7.0));
}

TEST(MatrixLU, RandomPermutedFactorisation) {
    std::mt19937 rng(21);
    for (int32_t n : {1, 2, 3, 7, 16, 41}) {
        Mat a = random(n, n, rng), l = make(n, n), u = make(n, n);
        Mat p(wzMatrixCreateIdentity(n));  // receives the permutation
        ASSERT_EQ(wzMatrixLUDecomposition(a.get(), l.get(), u.get(), p.get()), 0u);
        for (int32_t i = 0; i < n; ++i)
            for (int32_t j = 0; j < n; ++j) {
                if (j >= i) {
                    EXPECT_EQ(l->rowPtr[i][j], j == i ? 1.0 : 0.0);
                } else {
                    EXPECT_EQ(u->rowPtr[i][j], 0.0);
                    EXPECT_LE(std::fabs(l->rowPtr[i][j]), 1.0);  // partial pivoting
                }
            }
        EXPECT_LT(maxAbsDiff(product(p.get(), a.get()).get(), product(l.get(), u.get()).get()), 1e-13 * n);
    }
}

TEST(MatrixQR, IdentityRandomAndPlainGramSchmidt) {
    Mat id(wzMatrixCreateIdentity(3)), q = make(3, 3), r = make(3, 3);
    ASSERT_EQ(wzMatrixQRDecomposition(id.get(), q.get(), r.get()), 0u);
    EXPECT_EQ(elements(q.get()), elements(id.get()));
    EXPECT_EQ(elements(r.get()), elements(id.get()));

    std::mt19937 rng(17);
    for (int32_t n : {1, 2, 5, 12, 30}) {
        Mat a = random(n, n, rng), q2 = make(n, n), r2 = make(n, n);
        ASSERT_EQ(wzMatrixQRDecomposition(a.get(), q2.get(), r2.get()), 0u);
        EXPECT_LT(offIdentity(product(transpose(q2.get()).get(), q2.get()).get()), 1e-10);
        EXPECT_LT(maxAbsDiff(product(q2.get(), r2.get()).get(), a.get()), 1e-12);

        // Classical Gram-Schmidt with projections against A's own columns,
        // in plain column loops, then R = Q^T A in full: the same bits.
        Mat qp = make(n, n);
        auto Q = [&](int32_t i, int32_t j) -> double & { return qp->rowPtr[i][j]; };
        for (int32_t j = 0; j < n; ++j) {
            for (int32_t i = 0; i < n; ++i) Q(i, j) = a->rowPtr[i][j];
            for (int32_t k = 0; k < j; ++k) {
                double num = 0.0, den = 0.0;
                for (int32_t i = 0; i < n; ++i) num += Q(i, k) * a->rowPtr[i][j], den += Q(i, k) * Q(i, k);
                for (int32_t i = 0; i < n; ++i) Q(i, j) -= Q(i, k) * (num / den);
            }
            double s = 0.0;
            for (int32_t i = 0; i < n; ++i) s += Q(i, j) * Q(i, j);
            for (int32_t i = 0; i < n; ++i) Q(i, j) /= std::sqrt(s);
        }
        EXPECT_EQ(elements(q2.get()), elements(qp.get())) << n;
        for (int32_t row = 0; row < n; ++row)
            for (int32_t col = 0; col < n; ++col) {
                double s = 0.0;
                for (int32_t i = 0; i < n; ++i) s += a->rowPtr[i][col] * Q(i, row);
                EXPECT_EQ(r2->rowPtr[row][col], s);
            }
    }
    Mat a = make(3, 3), q3 = make(3, 3), r3 = make(3, 2, {}, 5.0);
    EXPECT_EQ(wzMatrixQRDecomposition(a.get(), q3.get(), r3.get()), 0xFFFFFFFFu);
    EXPECT_EQ(elements(r3.get()), Vec(6, 5.0));
}

TEST(MatrixSubstitution, DiagRuleTrianglesAndShapes) {
    // diag 1.0 ignores U's diagonal.
    Mat u = make(2, 2, {5, 2, 0, 7}), b = make(2, 1, {3, 1}), x = make(2, 1);
    ASSERT_EQ(wzMatrixBackwardSubstitution(u.get(), b.get(), x.get(), 1.0), 0u);
    EXPECT_EQ(elements(x.get()), (Vec{1, 1}));

    // Random triangles with NaN wherever nothing may be read (the other half,
    // and the diagonal when diag replaces it); four columns solved in place.
    std::mt19937 rng(9);
    const int32_t n = 23, k = 4;
    for (bool forward : {true, false})
        for (double diag : {0.0, 1.0, -2.0}) {
            Mat t = random(n, n, rng), tri = make(n, n), rhs = random(n, k, rng), sol = make(n, k);
            for (int32_t i = 0; i < n; ++i)
                for (int32_t j = 0; j < n; ++j) {
                    const bool inside = forward ? j <= i : j >= i;
                    if (j == i) tri->rowPtr[i][j] = diag != 0.0 ? diag : 2.0 + i % 3;
                    else if (inside) tri->rowPtr[i][j] = t->rowPtr[i][j];
                    t->rowPtr[i][j] = inside && (j != i || diag == 0.0) ? tri->rowPtr[i][j] : NAN;
                }
            std::memcpy(sol->data, rhs->data, sizeof(double) * n * k);
            const auto solve = forward ? wzMatrixForwardSubstitution : wzMatrixBackwardSubstitution;
            ASSERT_EQ(solve(t.get(), sol.get(), sol.get(), diag), 0u);
            EXPECT_LT(maxAbsDiff(product(tri.get(), sol.get()).get(), rhs.get()), 1e-12);
        }

    // Order 0 reads nothing; no column returns 0; mismatches return 1.
    Mat e = make(0, 0), e3 = make(0, 3), b0 = make(2, 0), x3 = make(2, 2, {}, 6.0), r = make(3, 2);
    EXPECT_EQ(wzMatrixForwardSubstitution(e.get(), e3.get(), e3.get(), 0.0), 0u);
    EXPECT_EQ(wzMatrixBackwardSubstitution(e.get(), e3.get(), e3.get(), 0.0), 0u);
    EXPECT_EQ(wzMatrixForwardSubstitution(u.get(), b0.get(), b0.get(), 0.0), 0u);
    EXPECT_EQ(wzMatrixForwardSubstitution(u.get(), b.get(), x3.get(), 0.0), 1u);
    EXPECT_EQ(wzMatrixBackwardSubstitution(u.get(), r.get(), r.get(), 0.0), 1u);
    EXPECT_EQ(elements(x3.get()), Vec(4, 6.0));
}

TEST(MatrixSolve, WorkedAndRandomSystems) {
    Mat a = make(2, 2, {4, 3, 6, 3}), b = make(2, 1, {10, 12}), x = make(2, 1);
    ASSERT_EQ(wzMatrixSolveLinearSystem(a.get(), x.get(), b.get(), nullptr), 0u);
    EXPECT_NEAR(x->data[0], 1.0, 1e-15);
    EXPECT_NEAR(x->data[1], 2.0, 1e-15);

    std::mt19937 rng(31);
    for (int32_t n : {1, 3, 10, 37}) {
        Mat m = random(n, n, rng), rhs = random(n, 3, rng), sol = make(n, 3), sol2 = make(n, 3), work = make(n, n);
        ASSERT_EQ(wzMatrixSolveLinearSystem(m.get(), sol.get(), rhs.get(), nullptr), 0u);
        EXPECT_LT(maxAbsDiff(product(m.get(), sol.get()).get(), rhs.get()), 1e-11);
        ASSERT_EQ(wzMatrixSolveLinearSystem(m.get(), sol2.get(), rhs.get(), work.get()), 0u);
        EXPECT_EQ(elements(sol.get()), elements(sol2.get()));
    }
    Mat singular = make(2, 2, {1, 2, 2, 4}), x2 = make(2, 2), wrongWork = make(3, 3);
    EXPECT_EQ(wzMatrixSolveLinearSystem(singular.get(), x.get(), b.get(), nullptr), 1u);
    EXPECT_EQ(wzMatrixSolveLinearSystem(a.get(), x2.get(), b.get(), nullptr), 1u);
    EXPECT_EQ(wzMatrixSolveLinearSystem(a.get(), x.get(), b.get(), wrongWork.get()), 1u);
}

TEST(MatrixLeastSquares, LineFitRandomAndRejections) {
    // y = 1 + 2 x through (0, 1), (1, 3), (2, 5).
    Mat a = make(3, 2, {1, 0, 1, 1, 1, 2}), y = make(3, 1, {1, 3, 5}), x = make(2, 1);
    ASSERT_EQ(wzMatrixLinearSystemLeastSquares(a.get(), x.get(), y.get(), nullptr, nullptr, nullptr), 0u);
    EXPECT_NEAR(x->data[0], 1.0, 1e-14);
    EXPECT_NEAR(x->data[1], 2.0, 1e-14);

    // Random systems: the residual is orthogonal to A's columns; a caller's
    // work matrices receive A^T A and A^T B.
    std::mt19937 rng(41);
    for (auto [m, n] : {std::pair{5, 5}, std::pair{20, 4}, std::pair{60, 13}}) {
        Mat A = random(m, n, rng), B = random(m, 2, rng), X = make(n, 2), X2 = make(n, 2);
        Mat w1 = make(m, n), w2 = make(n, n), w3 = make(n, 2), At = transpose(A.get());
        ASSERT_EQ(wzMatrixLinearSystemLeastSquares(A.get(), X.get(), B.get(), w1.get(), w2.get(), w3.get()), 0u);
        Mat res = product(A.get(), X.get()), zero = make(n, 2);
        for (int32_t k = 0; k < m * 2; ++k) res->data[k] -= B->data[k];
        EXPECT_LT(maxAbsDiff(product(At.get(), res.get()).get(), zero.get()), 1e-11);
        EXPECT_EQ(elements(w2.get()), elements(product(At.get(), A.get()).get()));
        EXPECT_EQ(elements(w3.get()), elements(product(At.get(), B.get()).get()));
        ASSERT_EQ(wzMatrixLinearSystemLeastSquares(A.get(), X2.get(), B.get(), nullptr, nullptr, nullptr), 0u);
        EXPECT_EQ(elements(X.get()), elements(X2.get()));
    }

    // Fewer rows than columns (nothing written), a too-small scratch block, a
    // wrong X: 1.
    Mat wide = make(2, 3, {1, 2, 3, 4, 5, 6}), yw = make(2, 1), xw = make(3, 1, {}, 8.0);
    EXPECT_EQ(wzMatrixLinearSystemLeastSquares(wide.get(), xw.get(), yw.get(), nullptr, nullptr, nullptr), 1u);
    EXPECT_EQ(elements(xw.get()), Vec(3, 8.0));
    Mat small = make(1, 2), xbad = make(3, 1);
    EXPECT_EQ(wzMatrixLinearSystemLeastSquares(a.get(), x.get(), y.get(), small.get(), nullptr, nullptr), 1u);
    EXPECT_EQ(wzMatrixLinearSystemLeastSquares(a.get(), xbad.get(), y.get(), nullptr, nullptr, nullptr), 1u);
}

// ---------------------------------------------------------------------------
// Singular value decomposition and pseudo-inverse

struct Svd {
    Mat u, w, v;
    int32_t status;
};

Svd decompose(const wzMatrix *a) {
    Svd s{make(a->nRows, a->nCols), make(a->nCols, 1), make(a->nCols, a->nCols), 0};
    s.status = wzMatrixSVDDecomposition(a, s.u.get(), s.w.get(), s.v.get());
    return s;
}

Mat reconstruct(const Svd &s) {  // U diag(w) V^T
    Mat uw = make(s.u->nRows, s.u->nCols);
    for (int32_t i = 0; i < uw->nRows; ++i)
        for (int32_t j = 0; j < uw->nCols; ++j) uw->rowPtr[i][j] = s.u->rowPtr[i][j] * s.w->data[j];
    return product(uw.get(), transpose(s.v.get()).get());
}

TEST(MatrixSvd, OffsetArrays) {
    double *v = vector(1, 3), *z = vector(-2, 2);
    ASSERT_TRUE(v && z);
    for (int i = 1; i <= 3; ++i) v[i] = i;
    for (int i = -3; i <= 2; ++i) z[i] = i;  // v[nl - 1] lies in the block too
    EXPECT_EQ(v[1] + v[2] + v[3], 6.0);
    free_vector(v, 1, 3);
    free_vector(z, -2, 2);
    free_vector(nullptr, 1, 3);
    EXPECT_EQ(vector(5, 4), nullptr);

    double **m = matrix(1, 2, 0, 2), **n = matrix(-1, 1, 3, 4);
    ASSERT_TRUE(m && n);
    EXPECT_EQ(m[2], m[1] + 3);
    EXPECT_EQ(n[1], n[-1] + 4);
    for (int r = 1; r <= 2; ++r)
        for (int c = 0; c <= 2; ++c) m[r][c] = 10 * r + c;
    n[-1][3] = n[1][4] = 1.0;
    free_matrix(m, 1, 2, 0, 2);
    free_matrix(n, -1, 1, 3, 4);
    EXPECT_EQ(matrix(2, 1, 0, 0), nullptr);
    EXPECT_EQ(matrix(0, INT64_MAX, 0, INT64_MAX), nullptr);
}

TEST(MatrixSvd, WorkedCases) {
    double **a = matrix(1, 2, 0, 1), **v = matrix(1, 2, 0, 1), *w = vector(1, 2);
    a[1][0] = a[2][1] = 1.0;
    a[1][1] = a[2][0] = 0.0;
    EXPECT_EQ(svdcmp(a, 2, 2, w, v), 0);
    EXPECT_EQ(w[1], 1.0);
    EXPECT_EQ(w[2], 1.0);
    free_matrix(a, 1, 2, 0, 1);
    free_matrix(v, 1, 2, 0, 1);
    free_vector(w, 1, 2);

    // 3 and 2, in that order and both non-negative.
    Mat m = make(2, 2, {3, 0, 0, -2});
    Svd s = decompose(m.get());
    ASSERT_EQ(s.status, 0);
    EXPECT_EQ(elements(s.w.get()), (Vec{3, 2}));
    EXPECT_LT(maxAbsDiff(reconstruct(s).get(), m.get()), 1e-15);

    // Non-finite input: the NaN norm estimate never passes a split test, the
    // search stops at the first row and the routine reports failure.
    Mat nan = make(3, 3, {}, NAN), inf = make(2, 2, {1, INFINITY, 2, 3});
    EXPECT_EQ(decompose(nan.get()).status, 1);
    EXPECT_EQ(decompose(inf.get()).status, 1);
}

TEST(MatrixSvd, RandomFactorisationProperties) {
    std::mt19937 rng(2024);
    const int32_t shapes[][2] = {{1, 1}, {1, 4}, {4, 1}, {5, 3}, {3, 5}, {8, 8}, {40, 25}, {25, 40}, {64, 64}};
    for (auto &sh : shapes)
        for (bool deficient : {false, true}) {
            const int32_t m = sh[0], n = sh[1];
            Mat a = random(m, n, rng);
            if (deficient && m > 2)  // a repeated row and a zero row
                for (int32_t j = 0; j < n; ++j) a->rowPtr[1][j] = a->rowPtr[0][j], a->rowPtr[2][j] = 0.0;
            Svd s = decompose(a.get());
            ASSERT_EQ(s.status, 0) << m << "x" << n;
            const double tol = 1e-13 * std::max(m, n);
            EXPECT_LT(maxAbsDiff(reconstruct(s).get(), a.get()), tol) << m << "x" << n;
            EXPECT_TRUE(std::all_of(s.w->data, s.w->data + n, [](double x) { return x >= 0.0; }));
            EXPECT_LT(offIdentity(product(transpose(s.v.get()).get(), s.v.get()).get()), tol);
            if (m >= n) {  // with m < n, U has n - m null columns
                EXPECT_LT(offIdentity(product(transpose(s.u.get()).get(), s.u.get()).get()), tol);
            }
            // Rotations in place and the code for processors without wide
            // vectors: the same bits.
            for (int form = 1; form <= 2; ++form) {
                Svd t{make(m, n), make(n, 1), make(n, n), 0};
                std::memcpy(t.u->data, a->data, sizeof(double) * m * n);
                ASSERT_EQ(morven::svdDecompose(morven::oneBefore(t.u->rowPtr), m, n, morven::oneBefore(t.w->data),
                                               morven::oneBefore(t.v->rowPtr), form == 2, true),
                          0);
                EXPECT_TRUE(sameBits(t.u.get(), s.u.get()) && sameBits(t.w.get(), s.w.get()) &&
                            sameBits(t.v.get(), s.v.get()))
                    << form;
            }
        }
}

TEST(MatrixSvd, SingularValuesMatchLapack) {
#ifndef MORVEN_TEST_HAVE_LAPACK
    GTEST_SKIP() << "LAPACK not available";
#else
    std::mt19937 rng(99);
    for (auto [m, n] : {std::pair{6, 6}, std::pair{30, 12}, std::pair{12, 30}, std::pair{97, 97}}) {
        Mat a = random(m, n, rng);
        Svd s = decompose(a.get());
        ASSERT_EQ(s.status, 0);
        Vec ours = elements(s.w.get());
        std::sort(ours.rbegin(), ours.rend());
        // Row-major A is column-major A^T: the same singular values.
        Vec at = elements(a.get()), sv(std::min(m, n)), work(1);
        int rows = n, cols = m, one = 1, lwork = -1, info = 0;
        for (int pass = 0; pass < 2; ++pass) {  // size query, then the values
            dgesvd_("N", "N", &rows, &cols, at.data(), &rows, sv.data(), nullptr, &one, nullptr, &one,
                    work.data(), &lwork, &info, 1, 1);
            work.resize(static_cast<size_t>(lwork = static_cast<int>(work[0])));
        }
        ASSERT_EQ(info, 0);
        for (size_t k = 0; k < sv.size(); ++k) EXPECT_NEAR(ours[k], sv[k], 1e-13 * sv[0]) << k;
        for (size_t k = sv.size(); k < ours.size(); ++k) EXPECT_LT(ours[k], 1e-13 * sv[0]);
    }
#endif
}

TEST(MatrixPseudoInverse, WorkedCases) {
    Mat a = make(2, 2, {2, 0, 0, 0}), p = make(2, 2, {}, 9.0);
    ASSERT_EQ(wzMatrixPseudoInverse(a.get(), p.get()), 0u);
    EXPECT_EQ(elements(p.get()), (Vec{0.5, 0, 0, 0}));  // the zero singular value is skipped

    Mat row = make(1, 2, {3, 4}), col = make(2, 1);
    ASSERT_EQ(wzMatrixPseudoInverse(row.get(), col.get()), 0u);
    EXPECT_NEAR(col->data[0], 0.12, 1e-16);
    EXPECT_NEAR(col->data[1], 0.16, 1e-16);

    std::mt19937 rng(6);  // an invertible matrix: its inverse
    Mat m = random(9, 9, rng), inv = make(9, 9);
    ASSERT_EQ(wzMatrixPseudoInverse(m.get(), inv.get()), 0u);
    EXPECT_LT(offIdentity(product(m.get(), inv.get()).get()), 1e-11);

    Mat wrong = make(2, 3, {}, 4.0);  // square A, P of another shape: unwritten
    EXPECT_EQ(wzMatrixPseudoInverse(a.get(), wrong.get()), 0u);
    EXPECT_EQ(elements(wrong.get()), Vec(6, 4.0));
}

TEST(MatrixPseudoInverse, MoorePenroseConditions) {
    // Square and tall matrices: the padded zero columns give singular values
    // of exactly 0. (Padded rows of a wide matrix can leave tiny non-zero
    // values, which are inverted by design.)
    std::mt19937 rng(77);
    for (auto [m, n] : {std::pair{1, 1}, std::pair{4, 4}, std::pair{30, 30}, std::pair{6, 3},
                        std::pair{5, 1}, std::pair{20, 11}}) {
        Mat a = random(m, n, rng), p = make(n, m);
        ASSERT_EQ(wzMatrixPseudoInverse(a.get(), p.get()), 0u);
        Mat ap = product(a.get(), p.get()), pa = product(p.get(), a.get());
        EXPECT_LT(maxAbsDiff(product(ap.get(), a.get()).get(), a.get()), 1e-11) << m << "x" << n;
        EXPECT_LT(maxAbsDiff(product(pa.get(), p.get()).get(), p.get()), 1e-11) << m << "x" << n;
        EXPECT_LT(maxAbsDiff(transpose(ap.get()).get(), ap.get()), 1e-11) << m << "x" << n;
        EXPECT_LT(maxAbsDiff(transpose(pa.get()).get(), pa.get()), 1e-11) << m << "x" << n;
    }
}

}  // namespace
