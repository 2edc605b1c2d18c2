// Matrix product and singular value decomposition, beside OpenCV's gemm and
// LAPACK's dgesvd when those are there.
#include "bench.hpp"

#include <cstring>

#ifdef MORVEN_BENCH_HAVE_OPENCV
#include <opencv2/core.hpp>
#endif

#ifdef MORVEN_BENCH_HAVE_LAPACK
// Fortran interface of LAPACK (column-major, arguments by address, hidden
// string lengths last).
extern "C" void dgesvd_(const char *jobu, const char *jobvt, const int *m, const int *n, double *a,
                        const int *lda, double *s, double *u, const int *ldu, double *vt,
                        const int *ldvt, double *work, const int *lwork, int *info,
                        size_t jobuLength, size_t jobvtLength);
#endif

namespace bench {

namespace {

constexpr int kProductSize = 512;
constexpr int kSvdSize = 256;

// Uniform values in [-1, 1) from a fixed seed.
std::vector<double> randomBlock(size_t n, uint64_t seed) {
    std::vector<double> v(n);
    for (double &x : v) {
        seed = seed * 6364136223846793005ull + 1442695040888963407ull;
        x = double(seed >> 11) * (2.0 / 9007199254740992.0) - 1.0;
    }
    return v;
}

std::string squareLabel(int n) { return std::to_string(n) + "x" + std::to_string(n); }

void product() {
    const int n = kProductSize;
    const std::string size = squareLabel(n);
    const std::string group = "product/" + std::to_string(n);
    Case c;
    c.key = group + "/morven";
    c.operation = "wzMatrixProduct";
    c.size = size;
    c.flops = 2.0 * n * n * n;
    c.minGflops = 8.0;
#ifdef MORVEN_BENCH_HAVE_OPENCV
    Case peer = c;
    peer.key = group + "/opencv";
    peer.operation = "cv::gemm";
    peer.minGflops = 0.0;
    addCase(peer, [n](benchmark::State &state) {
        std::vector<double> a = randomBlock(size_t(n) * n, 1), b = randomBlock(size_t(n) * n, 2);
        cv::Mat ma(n, n, CV_64F, a.data()), mb(n, n, CV_64F, b.data()), mc(n, n, CV_64F);
        timeCalls(state, mc.data, [&] { cv::gemm(ma, mb, 1.0, cv::noArray(), 0.0, mc); });
    });
    c.yardsticks.push_back({peer.key, 0.0});
#endif
    addCase(c, [n](benchmark::State &state) {
        wzMatrix *a = wzMatrixCreate(n, n), *b = wzMatrixCreate(n, n), *d = wzMatrixCreate(n, n);
        if (!a || !b || !d) {
            state.SkipWithError("allocation failed");
        } else {
            std::vector<double> va = randomBlock(size_t(n) * n, 1),
                                vb = randomBlock(size_t(n) * n, 2);
            std::memcpy(a->data, va.data(), va.size() * sizeof(double));
            std::memcpy(b->data, vb.data(), vb.size() * sizeof(double));
        }
        timeCalls(
            state, d->data, [&] { return wzMatrixProduct(d, a, b); }, "wzMatrixProduct");
        wzMatrixRelease(&d);
        wzMatrixRelease(&b);
        wzMatrixRelease(&a);
    });
}

#ifdef MORVEN_BENCH_HAVE_LAPACK
// dgesvd of the same values (read column-major: the transpose, which has the
// same singular values and the same cost). The input is restored before each
// call, as for svdcmp.
std::string addDgesvd(const std::string &group, const std::string &size, int n, bool vectors) {
    Case c;
    c.key = group + (vectors ? "/lapack" : "/lapack-values");
    c.operation = vectors ? "dgesvd U,V ('A','A')" : "dgesvd values ('N','N')";
    c.size = size;
    addCase(c, [n, vectors](benchmark::State &state) {
        const std::vector<double> input = randomBlock(size_t(n) * n, 3);
        std::vector<double> a(input.size()), s(n), u(vectors ? input.size() : 1),
            vt(vectors ? input.size() : 1);
        const char job = vectors ? 'A' : 'N';
        const int ld = n, ldv = vectors ? n : 1;
        int info = 0, lwork = -1;
        double query = 0.0;
        dgesvd_(&job, &job, &n, &n, a.data(), &ld, s.data(), u.data(), &ldv, vt.data(), &ldv,
                &query, &lwork, &info, 1, 1);
        lwork = int(query);
        std::vector<double> work(size_t(lwork > 1 ? lwork : 1));
        for (auto _ : state) {
            std::memcpy(a.data(), input.data(), input.size() * sizeof(double));
            dgesvd_(&job, &job, &n, &n, a.data(), &ld, s.data(), u.data(), &ldv, vt.data(), &ldv,
                    work.data(), &lwork, &info, 1, 1);
            if (info != 0) {
                state.SkipWithError("dgesvd failed");
                break;
            }
            benchmark::DoNotOptimize(s.data());
            benchmark::ClobberMemory();
        }
    });
    return c.key;
}
#endif

void svd() {
    const int n = kSvdSize;
    const std::string size = squareLabel(n);
    const std::string group = "svd/" + std::to_string(n);
    Case c;
    c.key = group + "/morven";
    c.operation = "svdcmp";
    c.size = size;
#ifdef MORVEN_BENCH_HAVE_LAPACK
    // svdcmp computes U and V: the like-for-like call is jobu = jobvt = 'A'.
    c.yardsticks.push_back({addDgesvd(group, size, n, true), 1.5});
    c.yardsticks.push_back({addDgesvd(group, size, n, false), 0.0});
#endif
    addCase(c, [n](benchmark::State &state) {
        const std::vector<double> input = randomBlock(size_t(n) * n, 3);
        double **a = matrix(1, n, 0, n - 1), **v = matrix(1, n, 0, n - 1);
        double *w = vector(1, n);
        if (!a || !v || !w) state.SkipWithError("allocation failed");
        timeCalls(
            state, &w[1],
            [&] {
                // One contiguous block starting at a[1][0].
                std::memcpy(&a[1][0], input.data(), input.size() * sizeof(double));
                return svdcmp(a, n, n, w, v);
            },
            "svdcmp");
        free_vector(w, 1, n);
        free_matrix(v, 1, n, 0, n - 1);
        free_matrix(a, 1, n, 0, n - 1);
    });
}

}  // namespace

void registerMatrixBenchmarks() {
    product();
    svd();
}

}  // namespace bench
