// output_file.h: the result file of lumora-fuse, written whole or not at all.
#pragma once

#include <climits>
#include <string>

#include "image_io.h"

namespace lumora_fuse {

// The fused pixels and how to store them.
struct OutputPicture {
    FileFormat format = FileFormat::Unknown;
    int width = 0, height = 0;
    int depth = 8;  // bits per sample
    const unsigned char *samples = nullptr;
    int quality = 95;
};

// The output under construction: a temporary file in the output's folder,
// moved into place by commit() and removed on any other end, so that a
// reader never meets a half-written picture under the output's name. The
// file has no name at all where the file system allows it (O_TMPFILE), so
// that even a tool killed outright leaves nothing behind; elsewhere it is a
// hidden file.
//
// One lives at a time: while its file has a hidden name, discardFromSignal()
// removes it from a signal handler.
class OutputFile {
public:
    explicit OutputFile(std::string path);
    ~OutputFile();  // discards unless committed
    OutputFile(const OutputFile &) = delete;
    OutputFile &operator=(const OutputFile &) = delete;

    // Creates the temporary file; false with the system's reason.
    bool create(std::string &error);
    // Writes the picture into the temporary file.
    bool write(const OutputPicture &picture, std::string &error);

    enum class Metadata { Copied, NotCopied, WriteFailed };
    // Adds the metadata of the image file `from` to the written picture. A
    // metadata write that fails leaves the file cut short, so the picture is
    // then written again without them: NotCopied (error says why they were
    // not copied) or, should that fail too, WriteFailed (error says why).
    Metadata addMetadata(const OutputPicture &picture, const std::string &from, std::string &error);

    // Makes the written file the output, replacing any file of that name in
    // one step. False with the system's reason, or with no reason when the
    // run was cancelled first.
    bool commit(std::string &error);
    // Removes the temporary file, if any.
    void discard();

    // Async-signal-safe: removes the live object's temporary file.
    static void discardFromSignal();

private:
    bool createHidden(std::string &error);
    std::string hiddenName() const;
    bool linkHidden(std::string &error);

    std::string path_;
    int fd_ = -1;                   // the temporary file, open while it exists
    bool unnamed_ = false;          // made with O_TMPFILE
    std::string writePath_;         // the name the writers open it by
    char tempPath_[PATH_MAX] = {};  // its hidden name while it has one, read by discardFromSignal()
    bool committed_ = false;
};

}  // namespace lumora_fuse
