// morven_bench: the library's operations beside their yardsticks, one table.
//
//   morven_bench [--sizes=0.25,1,4,24] [--pictures=synthetic,coffee,...] [Google Benchmark flags]
//
// --sizes lists the image sizes in megapixels (default 0.25,1,4,24);
// --pictures the pictures of the image benchmarks (default: synthetic,
// coffee, chelsea, astronaut and coffee+noise, the photographs when libpng
// could read them). With
// --benchmark_out=FILE the table is also written to FILE as JSON (the
// --benchmark_out_format flag is not used). Everything runs on the calling
// thread; OpenCV is limited to one thread.
#include "bench.hpp"
#include "report.hpp"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#ifdef MORVEN_BENCH_HAVE_OPENCV
#include <opencv2/core.hpp>
#endif

namespace {

bool parseSizes(const char *list, std::vector<double> &sizes) {
    sizes.clear();
    const char *p = list;
    while (*p) {
        char *end = nullptr;
        const double mp = std::strtod(p, &end);
        if (end == p || !(mp > 0.0) || mp > 200.0) return false;
        sizes.push_back(mp);
        p = end;
        if (*p == ',')
            ++p;
        else if (*p)
            return false;
    }
    return !sizes.empty();
}

}  // namespace

int main(int argc, char **argv) {
    std::vector<double> sizes = {0.25, 1, 4, 24};
    bool haveOut = false;
    // Take out our own flag before Google Benchmark reads the rest.
    int kept = 1;
    for (int i = 1; i < argc; ++i) {
        if (std::strncmp(argv[i], "--sizes=", 8) == 0) {
            if (!parseSizes(argv[i] + 8, sizes)) {
                std::fprintf(stderr,
                             "morven_bench: bad --sizes list '%s' (megapixels, e.g. 1,24)\n",
                             argv[i] + 8);
                return 2;
            }
            continue;
        }
        if (std::strncmp(argv[i], "--pictures=", 11) == 0) {
            if (!bench::setScenes(argv[i] + 11)) {
                std::fprintf(stderr,
                             "morven_bench: bad --pictures list '%s' (synthetic, coffee, chelsea, "
                             "astronaut, coffee+noise)\n",
                             argv[i] + 11);
                return 2;
            }
            continue;
        }
        if (std::strncmp(argv[i], "--benchmark_out=", 16) == 0) haveOut = argv[i][16] != '\0';
        argv[kept++] = argv[i];
    }
    argc = kept;
    argv[argc] = nullptr;

    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 2;

#ifdef MORVEN_BENCH_HAVE_OPENCV
    cv::setNumThreads(1);
#endif
    if (wzMorvenInit() != 0) {
        std::fprintf(stderr, "morven_bench: wzMorvenInit failed\n");
        return 1;
    }

    bench::registerImageBenchmarks(sizes);
    bench::registerMatrixBenchmarks();

    bench::TableReporter text(bench::TableReporter::Format::Text);
    bench::TableReporter json(bench::TableReporter::Format::Json);
    benchmark::RunSpecifiedBenchmarks(&text, haveOut ? &json : nullptr);
    benchmark::Shutdown();
    wzMorvenDispose();
    return 0;
}
