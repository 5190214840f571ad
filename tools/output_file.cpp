// output_file.cpp: the temporary file in the output's folder, and its move
// into place.
#include "output_file.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <random>
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

// An unnamed file in the output's folder, so that a tool killed outright
// leaves nothing behind and the final link and rename stay on one file
// system; where the file system has no unnamed files, a hidden one.
bool OutputFile::create(std::string &error) {
    if (hiddenName().size() >= sizeof tempPath_) {
        error = "path too long";
        return false;
    }
    // Private until commit(), as mkostemps makes the hidden one.
    fd_ = open(directoryOf(path_).c_str(), O_TMPFILE | O_WRONLY | O_CLOEXEC, 0600);
    if (fd_ >= 0) {
        // The image writers open files by name: this one's is its descriptor's.
        writePath_ = "/proc/self/fd/" + std::to_string(fd_);
        if (access(writePath_.c_str(), W_OK) == 0) {
            unnamed_ = true;
            return true;
        }
        close(fd_);  // no /proc
        fd_ = -1;
    } else if (errno != EOPNOTSUPP && errno != EISDIR && errno != EINVAL) {
        // EISDIR: a kernel without O_TMPFILE sees only O_DIRECTORY in it.
        error = strerror(errno);
        return false;
    }
    return createHidden(error);
}

bool OutputFile::createHidden(std::string &error) {
    const std::string pattern = hiddenName();
    std::vector<char> name(pattern.begin(), pattern.end());
    name.push_back('\0');
    fd_ = mkostemps(name.data(), int(extensionOf(path_).size()), O_CLOEXEC);
    if (fd_ < 0) {
        error = strerror(errno);
        return false;
    }
    memcpy(tempPath_, name.data(), name.size());
    gLiveTempPath.store(tempPath_);
    writePath_ = tempPath_;
    return true;
}

// The pattern of the hidden names: XXXXXX stands for six random characters.
std::string OutputFile::hiddenName() const {
    return directoryOf(path_) + "/.lumora-fuse-XXXXXX" + extensionOf(path_);
}

// Gives the unnamed file a hidden name beside the output. linkat cannot
// replace a file, so the output itself is then replaced by rename(); only a
// tool killed outright between the two leaves the hidden file behind.
bool OutputFile::linkHidden(std::string &error) {
    static const char letters[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789";
    std::random_device entropy;
    const std::string pattern = hiddenName();
    const size_t x = pattern.rfind("XXXXXX");
    // Held back until the name is registered, lest a second Ctrl-C between
    // the two leave the hidden file behind.
    sigset_t cancelSignals, mask;
    sigemptyset(&cancelSignals);
    sigaddset(&cancelSignals, SIGINT);
    sigaddset(&cancelSignals, SIGTERM);
    sigprocmask(SIG_BLOCK, &cancelSignals, &mask);
    int linkErrno = EEXIST;
    for (int attempt = 0; attempt < 100 && linkErrno == EEXIST; ++attempt) {
        std::string name = pattern;
        for (size_t i = 0; i < 6; ++i)
            name[x + i] = letters[entropy() % (sizeof letters - 1)];
        memcpy(tempPath_, name.c_str(), name.size() + 1);
        linkErrno = linkat(AT_FDCWD, writePath_.c_str(), AT_FDCWD, tempPath_, AT_SYMLINK_FOLLOW) == 0 ? 0 : errno;
    }
    if (linkErrno == 0)
        gLiveTempPath.store(tempPath_);
    sigprocmask(SIG_SETMASK, &mask, nullptr);
    error = strerror(linkErrno);
    return linkErrno == 0;
}

bool OutputFile::write(const OutputPicture &picture, std::string &error) {
    return writeImage(writePath_, picture.format, picture.width, picture.height, picture.depth, picture.samples,
                      picture.quality, error);
}

OutputFile::Metadata OutputFile::addMetadata(const OutputPicture &picture, const std::string &from,
                                             std::string &error) {
    if (copyMetadata(from, writePath_, picture.width, picture.height, error))
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
    if (unnamed_ && !linkHidden(error))
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
