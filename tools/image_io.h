// image_io.h: the image files of lumora-fuse.
//
// Readers turn JPEG, PNG and TIFF files into the 8-bit interleaved RGB that
// the fusion library takes; writers store 8- or 16-bit RGB as JPEG, PNG or
// TIFF. Every function reports problems through its result and a one-line
// message, never by exiting or printing, so that fuzzers can call them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace lumora_fuse {

// Larger pictures are refused before anything is allocated, whatever memory
// the machine has: the library counts the samples of a 16-bit result in int.
constexpr long long kMaxPixels = 100000000;

enum class FileFormat { Unknown, Jpeg, Png, Tiff };

// Interleaved 8-bit RGB, rows top to bottom, no padding.
struct Image {
    int width = 0;
    int height = 0;
    std::vector<unsigned char> rgb;  // width * height * 3
    // width * height opacities (255: opaque) of a file whose alpha channel
    // varies; empty when it has none or the same alpha everywhere.
    std::vector<unsigned char> alpha = {};
};

// The output format chosen by a file name's extension (case-insensitive):
// .jpg/.jpeg, .png, .tif/.tiff; Unknown otherwise.
FileFormat formatFromExtension(const std::string &path);
const char *formatName(FileFormat format);

// Asked by the readers as soon as the header gives the picture's size, before
// any pixel memory is allocated; false (with a message in error) refuses the
// file. Lets the caller turn down a picture it could not go on with (too big
// for the memory at hand, another size than the first exposure) unread.
using SizeCheck = std::function<bool(int width, int height, std::string &error)>;

// Reads a JPEG, PNG or TIFF image (recognised by its content) as 8-bit RGB.
// 16-bit samples are reduced to 8 bits, greyscale and palette images are
// expanded to RGB; each such conversion adds one line to notes (when given).
// Alpha that varies from pixel to pixel is kept in Image::alpha (at 8 bits);
// alpha that is the same everywhere (but not 0) is dropped with a note. On
// failure returns false with a message that does not repeat the file name.
bool readImage(const std::string &path, Image &image, std::string &error,
               std::vector<std::string> *notes = nullptr, const SizeCheck &check = nullptr);
bool readImageMemory(const unsigned char *data, size_t size, Image &image, std::string &error,
                     std::vector<std::string> *notes = nullptr, const SizeCheck &check = nullptr);

// Writes width x height RGB pixels with 8 (bytes) or 16 (native-endian
// uint16_t) bits per sample. JPEG takes 8 bits only; quality is 1..100. When
// the file system refuses the bytes (full disk, file-size limit, I/O error,
// folder gone), the message is the system's reason, e.g. "No space left on
// device", the same for every format; the file may then be left cut short.
bool writeImage(const std::string &path, FileFormat format, int width, int height, int depth,
                const void *samples, int quality, std::string &error);

// Writes size bytes as the whole file, with the same checks and messages.
bool writeFileBytes(const std::string &path, const void *data, size_t size, std::string &error);

}  // namespace lumora_fuse
