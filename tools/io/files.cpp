#include "files.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <system_error>

#include "core/common.hpp"
#include "core/limits.hpp"

namespace morven::tool {
namespace {

namespace fs = std::filesystem;

std::string errnoText(int error) {
    return std::error_code(error, std::generic_category()).message();
}

std::string quoted(const std::string &s) { return "'" + s + "'"; }

struct FdGuard {
    int fd;
    ~FdGuard() {
        if (fd >= 0) ::close(fd);
    }
};

mode_t g_creationMask = 022;

std::string folderOf(const std::string &path) {
    const fs::path target(path);
    return target.has_parent_path() ? target.parent_path().string() : ".";
}

}  // namespace

std::vector<uint8_t> readFileBytes(const std::string &path) {
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) throw FileError(path, "cannot open: " + errnoText(errno));
    FdGuard guard{fd};
    struct stat st {};
    if (::fstat(fd, &st) != 0) throw FileError(path, "cannot read: " + errnoText(errno));
    if (S_ISDIR(st.st_mode)) throw FileError(path, "is a folder, not an image");
    if (S_ISREG(st.st_mode) && uint64_t(st.st_size) > kMaxFileBytes)
        throw FileError(path, "file too large (over 2 GiB)");

    std::vector<uint8_t> bytes;
    bytes.resize(S_ISREG(st.st_mode) ? size_t(st.st_size) : size_t{1} << 16);
    size_t used = 0;
    for (;;) {
        if (used == bytes.size()) {
            if (bytes.size() >= kMaxFileBytes) throw FileError(path, "file too large (over 2 GiB)");
            bytes.resize(std::max<size_t>(bytes.size() * 2, 1 << 16));
        }
        const ssize_t n = ::read(fd, bytes.data() + used, bytes.size() - used);
        if (n < 0) {
            if (errno == EINTR) continue;
            throw FileError(path, "cannot read: " + errnoText(errno));
        }
        if (n == 0) break;
        used += size_t(n);
    }
    bytes.resize(used);
    return bytes;
}

void initFileCreationMask() {
    g_creationMask = ::umask(022);
    ::umask(g_creationMask);
}

void writeFileAtomically(const std::string &path, std::span<const uint8_t> bytes, bool overwrite) {
    const fs::path target(path);
    std::string hidden = target.filename().string();
    hidden.insert(0, 1, '.');
    hidden += ".XXXXXX";
    const std::string folder = folderOf(path);
    std::string name = (fs::path(folder) / hidden).string();
    const int fd = ::mkostemp(name.data(), O_CLOEXEC);
    if (fd < 0)
        throw FileError(
            path, "cannot create a file in folder " + quoted(folder) + ": " + errnoText(errno));
    bool kept = false;
    FdGuard file{fd};
    struct Remove {
        const std::string &name;
        const bool &kept;
        ~Remove() {
            if (!kept) ::unlink(name.c_str());
        }
    } remove{name, kept};

    const auto fail = [&](const char *what, int error) {
        throw FileError(path, std::string(what) + ": " + errnoText(error));
    };
    ::fchmod(fd, 0666 & ~g_creationMask);
    for (size_t done = 0; done < bytes.size();) {
        const ssize_t n = ::write(fd, bytes.data() + done, bytes.size() - done);
        if (n < 0) {
            if (errno == EINTR) continue;
            fail("cannot write", errno);
        }
        done += size_t(n);
    }
    if (::fsync(fd) != 0 && errno != EINVAL) fail("cannot write", errno);
    file.fd = -1;
    if (::close(fd) != 0) fail("cannot write", errno);
    if (cancelled()) throw Interrupted();

    if (overwrite) {
        if (::rename(name.c_str(), path.c_str()) != 0) fail("cannot write", errno);
    } else if (::renameat2(AT_FDCWD, name.c_str(), AT_FDCWD, path.c_str(), RENAME_NOREPLACE) != 0) {
        if (errno == EEXIST) throw FileError(path, "already exists (use --force to overwrite it)");
        if (errno != EINVAL && errno != ENOSYS) fail("cannot write", errno);
        // A file system without the no-replace rename: a hard link refuses to
        // replace too.
        if (::link(name.c_str(), path.c_str()) != 0) {
            if (errno == EEXIST)
                throw FileError(path, "already exists (use --force to overwrite it)");
            fail("cannot write", errno);
        }
        ::unlink(name.c_str());
    }
    kept = true;
}

void prepareFolder(const std::string &folder) {
    std::error_code error;
    fs::create_directories(folder, error);
    if (error || !fs::is_directory(folder))
        throw FileError(folder, "cannot create the folder: " +
                                    (error ? error.message() : std::string("not a folder")));
    std::string name = (fs::path(folder) / ".morven-probe.XXXXXX").string();
    const int fd = ::mkostemp(name.data(), O_CLOEXEC);
    if (fd < 0) throw FileError(folder, "cannot write into this folder: " + errnoText(errno));
    ::close(fd);
    ::unlink(name.c_str());
}

void checkOutputPath(const std::string &output, const std::vector<std::string> &inputs,
                     bool overwrite) {
    struct stat out {};
    if (::stat(output.c_str(), &out) == 0) {
        if (S_ISDIR(out.st_mode)) throw FileError(output, "is a folder; give a file name to write");
        for (const std::string &input : inputs) {
            struct stat in {};
            if (::stat(input.c_str(), &in) == 0 && in.st_dev == out.st_dev &&
                in.st_ino == out.st_ino)
                throw FileError(output, "is also an input file; inputs are never overwritten");
        }
        if (!overwrite) throw FileError(output, "already exists (use --force to overwrite it)");
    }
    const std::string folder = folderOf(output);
    struct stat dir {};
    if (::stat(folder.c_str(), &dir) != 0 && errno == ENOENT) {
        std::error_code error;
        fs::create_directories(folder, error);
        if (error)
            throw FileError(output,
                            "cannot create folder " + quoted(folder) + ": " + error.message());
    }
    if (::stat(folder.c_str(), &dir) != 0)
        throw FileError(output,
                        "cannot write into folder " + quoted(folder) + ": " + errnoText(errno));
    if (!S_ISDIR(dir.st_mode)) throw FileError(output, quoted(folder) + " is not a folder");
    if (::access(folder.c_str(), W_OK | X_OK) != 0)
        throw FileError(output,
                        "cannot write into folder " + quoted(folder) + ": " + errnoText(errno));
}

}  // namespace morven::tool
