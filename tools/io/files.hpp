// Files: reading whole inputs, atomic writes and the checks made before any
// work is done on an output.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace morven::tool {

// The whole file (at most kMaxFileBytes). Throws FileError.
std::vector<uint8_t> readFileBytes(const std::string &path);

// Writes bytes to path through a temporary file in the same folder that is
// renamed over the target at the end, so the target is either absent, its old
// self, or complete. Without overwrite an existing target is left alone and
// an error raised. The cancel flag is checked before the rename: an
// interrupted write leaves nothing behind. Throws FileError or Interrupted.
void writeFileAtomically(const std::string &path, std::span<const uint8_t> bytes, bool overwrite);

// Fails with FileError when the output may not be written: it exists and
// overwrite is off, it is a folder, or it is one of the inputs (never
// overwritten). Its folder is created when missing; it must be writable.
void checkOutputPath(const std::string &output, const std::vector<std::string> &inputs,
                     bool overwrite);

// Creates the folder when it is missing and fails with FileError unless a
// file can be created in it (tried with a temporary file, removed at once).
void prepareFolder(const std::string &folder);

// Reads the process umask once, before threads start (files are created
// with 0666 & ~umask like any other program's).
void initFileCreationMask();

}  // namespace morven::tool
