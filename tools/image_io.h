// image_io.h: the image files of lumora-fuse.
//
// Readers turn JPEG, PNG and TIFF files into the 8-bit interleaved RGB that
// the fusion library takes; writers store 8- or 16-bit RGB as JPEG, PNG or
// TIFF. Every function reports problems through its result and a one-line
// message, never by exiting or printing, so that fuzzers can call them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace lumora_fuse {

// Larger pictures are refused before anything is allocated: the fusion keeps
// about 60 bytes per pixel and counts samples of a 16-bit result in int.
constexpr long long kMaxPixels = 100000000;

enum class FileFormat { Unknown, Jpeg, Png, Tiff };

// Interleaved 8-bit RGB, rows top to bottom, no padding.
struct Image {
    int width = 0;
    int height = 0;
    std::vector<unsigned char> rgb;  // width * height * 3
};

// The output format chosen by a file name's extension (case-insensitive):
// .jpg/.jpeg, .png, .tif/.tiff; Unknown otherwise.
FileFormat formatFromExtension(const std::string &path);
const char *formatName(FileFormat format);

// Reads a JPEG, PNG or TIFF image (recognised by its content) as 8-bit RGB.
// 16-bit samples are reduced to 8 bits, greyscale and palette images are
// expanded to RGB and alpha is dropped; each such conversion adds one line to
// notes (when given). On failure returns false with a message that does not
// repeat the file name.
bool readImage(const std::string &path, Image &image, std::string &error,
               std::vector<std::string> *notes = nullptr);
bool readImageMemory(const unsigned char *data, size_t size, Image &image, std::string &error,
                     std::vector<std::string> *notes = nullptr);

// Writes width x height RGB pixels with 8 (bytes) or 16 (native-endian
// uint16_t) bits per sample. JPEG takes 8 bits only; quality is 1..100.
bool writeImage(const std::string &path, FileFormat format, int width, int height, int depth,
                const void *samples, int quality, std::string &error);

}  // namespace lumora_fuse
