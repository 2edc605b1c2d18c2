// The table: every measured case against its yardsticks, as text on the
// console and as JSON in the --benchmark_out file.
#include "report.hpp"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <ctime>
#include <fstream>
#include <map>
#include <utility>

#ifdef MORVEN_BENCH_HAVE_OPENCV
#include <opencv2/core/version.hpp>
#endif

namespace bench {

struct TableRow {
    TableRow(const Case *c, const Measurement *measurement, std::string name)
        : measured(c), m(measurement), yardstick(std::move(name)) {}
    const Case *measured;
    const Measurement *m;
    std::string yardstick;  // "-" when none
    const Measurement *y = nullptr;
    double ratio = NAN;
    std::string target;  // "" when none
    std::string result;  // "met", "missed" or ""
};

namespace {

std::string format(const char *fmt, double v) {
    char text[64];
    std::snprintf(text, sizeof text, fmt, v);
    return text;
}

std::string formatTime(double ns) {
    if (!(ns >= 0.0)) return "-";
    if (ns < 1e3) return format("%.1f ns", ns);
    if (ns < 1e6) return format("%.1f us", ns / 1e3);
    if (ns < 1e9) return format("%.2f ms", ns / 1e6);
    return format("%.3f s", ns / 1e9);
}

// Throughput of a case in MB/s (1 MB = 10^6 bytes) or GFLOP/s; NAN if none.
double throughput(const Case &c, const Measurement &m, const char **unit) {
    const double seconds = m.cpuNs / 1e9;
    if (c.flops > 0.0) {
        *unit = "GFLOP/s";
        return c.flops / seconds / 1e9;
    }
    if (c.bytes > 0.0) {
        *unit = "MB/s";
        return c.bytes / seconds / 1e6;
    }
    *unit = "";
    return NAN;
}

std::string formatThroughput(const Case &c, const Measurement &m) {
    const char *unit;
    const double t = throughput(c, m, &unit);
    if (std::isnan(t)) return "-";
    return format(t >= 100.0 ? "%.0f " : "%.2f ", t) + unit;
}

std::string formatTarget(double maxRatio) { return format("<= %g", maxRatio); }

std::string jsonString(const std::string &s) {
    std::string out = "\"";
    for (char ch : s) {
        if (ch == '"' || ch == '\\') out += '\\';
        if (static_cast<unsigned char>(ch) < 0x20) {
            out += format("\\u%04x", double(static_cast<unsigned char>(ch)));
            continue;
        }
        out += ch;
    }
    return out + "\"";
}

std::string jsonNumber(double v) {
    if (!std::isfinite(v)) return "null";
    char text[64];
    std::snprintf(text, sizeof text, "%.10g", v);
    return text;
}

std::string cpuModel() {
    std::ifstream in("/proc/cpuinfo");
    std::string line;
    while (std::getline(in, line)) {
        if (line.rfind("model name", 0) == 0) {
            const size_t colon = line.find(':');
            if (colon != std::string::npos) {
                size_t start = line.find_first_not_of(" \t", colon + 1);
                return start == std::string::npos ? "" : line.substr(start);
            }
        }
    }
    return "unknown";
}

std::string groupOf(const std::string &key) { return key.substr(0, key.find('/')); }

std::string picture(const Case &c) { return c.picture.empty() ? "-" : c.picture; }

}  // namespace

TableReporter::TableReporter(Format format) : format_(format) {}

bool TableReporter::ReportContext(const Context &context) {
    numCpus_ = context.cpu_info.num_cpus;
    mhz_ = context.cpu_info.cycles_per_second / 1e6;
    loadAvg_ = context.cpu_info.load_avg;
    if (format_ == Format::Text) std::fprintf(stderr, "morven_bench: one line per finished case\n");
    return true;
}

void TableReporter::ReportRuns(const std::vector<Run> &runs) {
    for (const Run &run : runs) {
        const bool median = run.run_type == Run::RT_Aggregate && run.aggregate_name == "median";
        if (run.run_type == Run::RT_Aggregate && !median) continue;
        Measurement m;
        m.key = run.run_name.function_name;
        m.error = run.error_occurred;
        m.message = run.error_message;
        const double toNs = 1e9 / benchmark::GetTimeUnitMultiplier(run.time_unit);
        m.cpuNs = run.GetAdjustedCPUTime() * toNs;
        m.realNs = run.GetAdjustedRealTime() * toNs;
        m.iterations = int64_t(run.iterations);
        m.repetitions = run.repetitions;
        m.statistic = median ? "median" : "single";
        auto found = index_.find(m.key);
        if (found == index_.end()) {
            index_[m.key] = measurements_.size();
            measurements_.push_back(m);
        } else if (median || measurements_[found->second].statistic != "median") {
            measurements_[found->second] = m;
        }
        // One progress line per case: at its median, or at its only run.
        const bool last = median || m.error || run.repetitions <= 1;
        if (format_ == Format::Text && last) {
            if (m.error)
                std::fprintf(stderr, "  %-36s error: %s\n", m.key.c_str(), m.message.c_str());
            else
                std::fprintf(stderr, "  %-36s %s\n", m.key.c_str(), formatTime(m.cpuNs).c_str());
        }
    }
}

const Measurement *TableReporter::find(const std::string &key) const {
    auto found = index_.find(key);
    return found == index_.end() ? nullptr : &measurements_[found->second];
}

void TableReporter::Finalize() {
    // Rows: every listed case that ran, once per yardstick (or once alone).
    std::vector<TableRow> rows;
    for (const Case &c : cases()) {
        const Measurement *m = find(c.key);
        if (!c.listed || !m) continue;
        const size_t first = rows.size();
        if (c.minGflops > 0.0 || c.yardsticks.empty()) {
            TableRow r(&c, m, "-");
            if (c.minGflops > 0.0 && !m->error) {
                const char *unit;
                r.target = format(">= %g ", c.minGflops) + "GFLOP/s";
                r.result = throughput(c, *m, &unit) >= c.minGflops ? "met" : "missed";
            }
            rows.push_back(r);
        }
        for (const Yardstick &y : c.yardsticks) {
            const Case *yc = findCase(y.key);
            const Measurement *ym = find(y.key);
            if (!yc || !ym) continue;
            TableRow r(&c, m, yc->operation);
            r.y = ym;
            if (!m->error && !ym->error) {
                r.ratio = m->cpuNs / ym->cpuNs;
                if (y.maxRatio > 0.0) {
                    r.target = formatTarget(y.maxRatio);
                    r.result = r.ratio <= y.maxRatio ? "met" : "missed";
                }
            }
            rows.push_back(r);
        }
        if (rows.size() == first) rows.emplace_back(&c, m, "-");
    }
    if (format_ == Format::Text)
        writeText(rows);
    else
        writeJson(rows);
}

void TableReporter::writeText(const std::vector<TableRow> &rows) const {
    std::ostream &out = GetOutputStream();
    std::vector<std::vector<std::string>> cells;
    cells.push_back({"operation", "picture", "size", "time", "throughput", "yardstick", "ratio",
                     "target", "result"});
    int met = 0, missed = 0;
    std::vector<bool> gapBefore(1, false);
    std::string previousGroup;
    for (const TableRow &r : rows) {
        const std::string group = groupOf(r.measured->key);
        gapBefore.push_back(!previousGroup.empty() && group != previousGroup);
        previousGroup = group;
        if (r.m->error) {
            cells.push_back({r.measured->operation, picture(*r.measured), r.measured->size,
                             "error: " + r.m->message, "", "", "", "", ""});
            continue;
        }
        std::string yardstick = r.yardstick;
        if (r.y) yardstick += r.y->error ? " (error)" : " " + formatTime(r.y->cpuNs);
        cells.push_back({r.measured->operation, picture(*r.measured), r.measured->size,
                         formatTime(r.m->cpuNs), formatThroughput(*r.measured, *r.m), yardstick,
                         std::isnan(r.ratio) ? "-" : format("%.2f", r.ratio),
                         r.target.empty() ? "-" : r.target, r.result.empty() ? "-" : r.result});
        met += r.result == "met";
        missed += r.result == "missed";
    }
    std::vector<size_t> width(cells.front().size(), 0);
    for (const auto &line : cells)
        for (size_t i = 0; i < line.size(); ++i) width[i] = std::max(width[i], line[i].size());
    // Numbers right-aligned, words left-aligned.
    const bool right[] = {false, false, false, true, true, false, true, false, false};

    std::string model = cpuModel();
    out << "Morven benchmarks on " << model << " (" << numCpus_ << " CPUs";
    if (mhz_ > 0.0) out << ", " << format("%.0f", mhz_) << " MHz";
    out << "), one thread; time is the CPU time of one call";
    if (!measurements_.empty())
        out << (measurements_.front().statistic == "median"
                    ? ", median of " + std::to_string(measurements_.front().repetitions) + " runs"
                    : ", one run");
    out << "\nyardsticks: memcpy of the same bytes";
#ifdef MORVEN_BENCH_HAVE_OPENCV
    out << ", OpenCV " CV_VERSION;
#endif
#ifdef MORVEN_BENCH_HAVE_LAPACK
    out << ", LAPACK dgesvd";
#endif
    out << "; ratio = time / yardstick time, both from this run;\n"
           "MB/s counts the yardstick's bytes (10^6 bytes per MB); targets apply at 24 MP\n\n";
    for (size_t n = 0; n < cells.size(); ++n) {
        if (gapBefore[n]) out << '\n';
        std::string line;
        for (size_t i = 0; i < cells[n].size(); ++i) {
            const std::string &cell = cells[n][i];
            const std::string pad(width[i] - cell.size(), ' ');
            line += right[i] && n > 0 ? pad + cell : cell + pad;
            if (i + 1 < cells[n].size()) line += "  ";
        }
        while (!line.empty() && line.back() == ' ') line.pop_back();
        out << line << '\n';
    }
    out << "\ntargets: " << met << " met, " << missed << " missed\n";
    out.flush();
}

void TableReporter::writeJson(const std::vector<TableRow> &rows) const {
    std::ostream &out = GetOutputStream();
    char date[64] = "";
    const std::time_t now = std::time(nullptr);
    std::strftime(date, sizeof date, "%Y-%m-%dT%H:%M:%SZ", std::gmtime(&now));
    out << "{\n  \"context\": {\n";
    out << "    \"date\": " << jsonString(date) << ",\n";
    out << "    \"cpu_model\": " << jsonString(cpuModel()) << ",\n";
    out << "    \"num_cpus\": " << numCpus_ << ",\n";
    out << "    \"mhz\": " << jsonNumber(mhz_) << ",\n";
    out << "    \"load_avg\": [";
    for (size_t i = 0; i < loadAvg_.size(); ++i) out << (i ? ", " : "") << jsonNumber(loadAvg_[i]);
    out << "],\n";
    out << "    \"time\": \"cpu time of one call, ns\",\n";
    out << "    \"statistic\": "
        << jsonString(!measurements_.empty() ? measurements_.front().statistic : "") << ",\n";
    out << "    \"repetitions\": "
        << (measurements_.empty() ? 0 : measurements_.front().repetitions) << ",\n";
#ifdef MORVEN_BENCH_HAVE_OPENCV
    out << "    \"opencv\": " << jsonString(CV_VERSION) << ",\n";
#else
    out << "    \"opencv\": null,\n";
#endif
#ifdef MORVEN_BENCH_HAVE_LAPACK
    out << "    \"lapack\": true\n";
#else
    out << "    \"lapack\": false\n";
#endif
    out << "  },\n  \"rows\": [\n";
    for (size_t n = 0; n < rows.size(); ++n) {
        const TableRow &r = rows[n];
        const char *unit = "";
        const double t = r.m->error ? NAN : throughput(*r.measured, *r.m, &unit);
        out << "    {\"operation\": " << jsonString(r.measured->operation) << ", \"picture\": "
            << (r.measured->picture.empty() ? "null" : jsonString(r.measured->picture))
            << ", \"size\": " << jsonString(r.measured->size)
            << ", \"name\": " << jsonString(r.measured->key)
            << ", \"time_ns\": " << jsonNumber(r.m->error ? NAN : r.m->cpuNs)
            << ", \"throughput\": " << jsonNumber(t)
            << ", \"throughput_unit\": " << jsonString(unit)
            << ", \"yardstick\": " << (r.y ? jsonString(r.yardstick) : "null")
            << ", \"yardstick_time_ns\": " << jsonNumber(r.y && !r.y->error ? r.y->cpuNs : NAN)
            << ", \"ratio\": " << jsonNumber(r.ratio)
            << ", \"target\": " << (r.target.empty() ? "null" : jsonString(r.target))
            << ", \"result\": " << (r.result.empty() ? "null" : jsonString(r.result))
            << ", \"error\": " << (r.m->error ? jsonString(r.m->message) : "null") << "}"
            << (n + 1 < rows.size() ? ",\n" : "\n");
    }
    out << "  ],\n  \"measurements\": [\n";
    for (size_t n = 0; n < measurements_.size(); ++n) {
        const Measurement &m = measurements_[n];
        const Case *c = findCase(m.key);
        out << "    {\"name\": " << jsonString(m.key)
            << ", \"operation\": " << jsonString(c ? c->operation : "")
            << ", \"size\": " << jsonString(c ? c->size : "")
            << ", \"bytes\": " << jsonNumber(c && c->bytes > 0.0 ? c->bytes : NAN)
            << ", \"flops\": " << jsonNumber(c && c->flops > 0.0 ? c->flops : NAN)
            << ", \"cpu_time_ns\": " << jsonNumber(m.cpuNs)
            << ", \"real_time_ns\": " << jsonNumber(m.realNs) << ", \"iterations\": "
            << (m.statistic == "single" ? std::to_string(m.iterations) : std::string("null"))
            << ", \"repetitions\": " << m.repetitions
            << ", \"statistic\": " << jsonString(m.statistic)
            << ", \"error\": " << (m.error ? jsonString(m.message) : "null") << "}"
            << (n + 1 < measurements_.size() ? ",\n" : "\n");
    }
    out << "  ]\n}\n";
    out.flush();
}

}  // namespace bench
