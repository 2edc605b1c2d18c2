// Pieces shared by every part of the command-line tool: error types, exit
// statuses, the cancel flag and small timing helpers.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <stdexcept>
#include <string>

namespace morven::tool {

// Exit statuses of the tool.
constexpr int kExitOk = 0;
constexpr int kExitFailure = 1;        // a file could not be read, processed or written
constexpr int kExitUsage = 2;          // the command line is wrong
constexpr int kExitInterrupted = 130;  // Ctrl-C (128 + SIGINT), as shells report it

// A problem with the command line; reported as "morven <command>: <message>".
class UsageError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// A problem with one file; reported as "morven: <file>: <reason>".
class FileError : public std::runtime_error {
public:
    FileError(std::string file, const std::string &reason)
        : std::runtime_error(reason), file_(std::move(file)) {}
    const std::string &file() const { return file_; }

private:
    std::string file_;
};

// The run was interrupted (Ctrl-C) before its result was written.
class Interrupted : public std::runtime_error {
public:
    Interrupted() : std::runtime_error("interrupted") {}
};

// The cancel flag handed to every library filter. A SIGINT or SIGTERM
// handler sets it; the library reads it before each row or pass.
uint32_t *cancelFlag();
bool cancelled();
void installSignalHandlers();

// Wall-clock stopwatch in seconds.
class Stopwatch {
public:
    Stopwatch() : start_(std::chrono::steady_clock::now()) {}
    double seconds() const {
        return std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count();
    }

private:
    std::chrono::steady_clock::time_point start_;
};

// Time spent per stage of one image, in seconds.
struct Timings {
    double decode = 0, library = 0, encode = 0, write = 0;
    Timings &operator+=(const Timings &o) {
        decode += o.decode;
        library += o.library;
        encode += o.encode;
        write += o.write;
        return *this;
    }
};

std::string describeTimings(const Timings &t);

// Writes one whole line to stderr; safe from any thread. A progress line,
// when one is shown, is erased first and drawn again after it.
void printLine(const std::string &line);
// Shows (or, with an empty string, removes) the progress line at the bottom
// of the terminal.
void setProgressLine(const std::string &line);

}  // namespace morven::tool
