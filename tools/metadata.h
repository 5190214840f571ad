// metadata.h: carrying EXIF, XMP and the ICC profile of an exposure over to
// the fused result (Exiv2).
#pragma once

#include <string>

namespace lumora_fuse {

// Copies the EXIF, XMP and ICC profile of the image file `from` into the
// image file `to`, which is already written. Tags that describe the source
// file's own layout (strips, thumbnail, pixel counts) are not copied; the
// pixel dimensions are set to width x height; the orientation tag is copied
// unchanged. A source without metadata leaves `to` untouched. Returns false
// with a one-line message when the metadata could not be read or written.
bool copyMetadata(const std::string &from, const std::string &to, int width, int height,
                  std::string &error);

// Silences Exiv2's own warnings on the standard error stream (on by default
// in the tool; --verbose keeps them).
void muteMetadataWarnings(bool mute);

}  // namespace lumora_fuse
