// output_file.cpp: the temporary file beside the output, and its move into
// place.
#include "output_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "cancel.h"
#include "metadata.h"

namespace lumora_fuse {
namespace {

// The name of the live object's temporary file while one exists: the one
// thing the signal handlers need, reachable without a lock.
std::atomic<const char *> gLiveTempPath{nullptr};
static_assert(std::atomic<const char *>::is_always_lock_free);

std::string directoryOf(const std::string &path) {
    const size_t slash = path.find_last_of('/');
    if (slash == std::string::npos)
        return ".";
    return slash == 0 ? "/" : path.substr(0, slash);
}

std::string extensionOf(const std::string &path) { return path.substr(path.find_last_of('.')); }

}  // namespace

OutputFile::OutputFile(std::string path) : path_(std::move(path)) {}

OutputFile::~OutputFile() { discard(); }

void OutputFile::discardFromSignal() {
    if (const char *path = gLiveTempPath.load())
        unlink(path);
}

// A hidden file beside the output, so that the final rename stays on one
// file system.
bool OutputFile::create(std::string &error) {
    const std::string extension = extensionOf(path_);
    const std::string pattern = directoryOf(path_) + "/.lumora-fuse-XXXXXX" + extension;
    if (pattern.size() >= sizeof tempPath_) {
        error = "path too long";
        return false;
    }
    std::vector<char> name(pattern.begin(), pattern.end());
    name.push_back('\0');
    fd_ = mkostemps(name.data(), int(extension.size()), O_CLOEXEC);
    if (fd_ < 0) {
        error = strerror(errno);
        return false;
    }
    memcpy(tempPath_, name.data(), name.size());
    gLiveTempPath.store(tempPath_);
    return true;
}

bool OutputFile::write(const OutputPicture &picture, std::string &error) {
    return writeImage(tempPath_, picture.format, picture.width, picture.height, picture.depth, picture.samples,
                      picture.quality, error);
}

OutputFile::Metadata OutputFile::addMetadata(const OutputPicture &picture, const std::string &from,
                                             std::string &error) {
    if (copyMetadata(from, tempPath_, picture.width, picture.height, error))
        return Metadata::Copied;
    std::string writeError;
    if (!write(picture, writeError)) {
        error = writeError;
        return Metadata::WriteFailed;
    }
    return Metadata::NotCopied;
}

// Some file systems report a full disk or a failed device only when the data
// reach it: the sync's verdict counts as much as the writes'.
bool OutputFile::commit(std::string &error) {
    const mode_t mask = umask(0);
    umask(mask);
    fchmod(fd_, 0666 & ~mask);  // the temporary file was made private
    // A file system that cannot sync at all (EINVAL, ENOTSUP) is no failure.
    if (fsync(fd_) != 0 && errno != EINVAL && errno != ENOTSUP) {
        error = strerror(errno);
        return false;
    }
    if (cancelRequested())
        return false;
    if (rename(tempPath_, path_.c_str()) != 0) {
        error = strerror(errno);
        return false;
    }
    gLiveTempPath.store(nullptr);
    committed_ = true;
    return true;
}

void OutputFile::discard() {
    if (gLiveTempPath.load() == tempPath_) {
        gLiveTempPath.store(nullptr);
        if (!committed_)
            unlink(tempPath_);
    }
    if (fd_ >= 0)
        close(fd_);
    fd_ = -1;
}

}  // namespace lumora_fuse
