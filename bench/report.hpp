// The table reporter: collects the median (or only) run of every case and,
// at the end, writes each measured case against its yardsticks.
#pragma once

#include "bench.hpp"

#include <map>
#include <string>
#include <vector>

namespace bench {

struct Measurement {
    std::string key;
    bool error = false;
    std::string message;
    double cpuNs = 0.0;      // CPU time per call
    double realNs = 0.0;     // wall-clock time per call
    int64_t iterations = 0;  // calls timed in the run (not kept for a median)
    int64_t repetitions = 0;
    std::string statistic;  // "median" or "single"
};

struct TableRow;

class TableReporter : public benchmark::BenchmarkReporter {
public:
    enum class Format { Text, Json };
    explicit TableReporter(Format format);

    bool ReportContext(const Context &context) override;
    void ReportRuns(const std::vector<Run> &runs) override;
    void Finalize() override;

private:
    const Measurement *find(const std::string &key) const;
    void writeText(const std::vector<TableRow> &rows) const;
    void writeJson(const std::vector<TableRow> &rows) const;

    Format format_;
    int numCpus_ = 0;
    double mhz_ = 0.0;
    std::vector<double> loadAvg_;
    std::vector<Measurement> measurements_;
    std::map<std::string, size_t> index_;
};

}  // namespace bench
