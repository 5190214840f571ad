// metadata.cpp: EXIF, XMP and ICC copied with Exiv2.
#include "metadata.h"

#include "image_io.h"

#include <cstring>
#include <exception>

#include <exiv2/exiv2.hpp>

namespace lumora_fuse {
namespace {

// Tags that belong to the layout of the file they sit in, not to the photo.
bool describesFileLayout(const Exiv2::Exifdatum &datum) {
    static const char *const layoutTags[] = {
        "ImageWidth", "ImageLength", "BitsPerSample", "Compression", "PhotometricInterpretation",
        "StripOffsets", "RowsPerStrip", "StripByteCounts", "SamplesPerPixel", "PlanarConfiguration",
        "TileWidth", "TileLength", "TileOffsets", "TileByteCounts", "JPEGInterchangeFormat",
        "JPEGInterchangeFormatLength", "SubIFDs", "NewSubfileType", "SubfileType", "Predictor",
        "ExtraSamples", "SampleFormat", "YCbCrSubSampling", "FillOrder", "InterColorProfile"};
    if (datum.groupName().rfind("Thumbnail", 0) == 0 || datum.groupName().rfind("SubImage", 0) == 0)
        return true;
    if (datum.groupName() != "Image")
        return false;
    for (const char *tag : layoutTags)
        if (datum.tagName() == tag)
            return true;
    return false;
}

}  // namespace

void muteMetadataWarnings(bool mute) {
    Exiv2::LogMsg::setLevel(mute ? Exiv2::LogMsg::mute : Exiv2::LogMsg::warn);
}

bool copyMetadata(const std::string &from, const std::string &to, int width, int height,
                  std::string &error) {
    try {
        Exiv2::Image::AutoPtr source = Exiv2::ImageFactory::open(from);
        source->readMetadata();
        const Exiv2::ExifData &sourceExif = source->exifData();
        Exiv2::DataBuf icc;
        if (source->iccProfileDefined()) {
            icc.alloc(source->iccProfile()->size_);
            memcpy(icc.pData_, source->iccProfile()->pData_, icc.size_);
        } else {
            // A TIFF keeps its profile as an ordinary tag.
            auto pos = sourceExif.findKey(Exiv2::ExifKey("Exif.Image.InterColorProfile"));
            if (pos != sourceExif.end() && pos->size() > 0) {
                icc.alloc(long(pos->size()));
                pos->copy(icc.pData_, Exiv2::invalidByteOrder);
            }
        }
        if (sourceExif.empty() && source->xmpData().empty() && icc.size_ == 0)
            return true;

        // Exiv2 rewrites a file in place and can leave it cut short without a
        // word when the disk fills: it works on a copy in memory, and the
        // result is written with checked writes.
        Exiv2::FileIo file(to);
        if (file.open("rb") != 0)
            throw Exiv2::Error(Exiv2::kerDataSourceOpenFailed, to, Exiv2::strError());
        const Exiv2::DataBuf written = file.read(long(file.size()));
        file.close();
        Exiv2::Image::AutoPtr target = Exiv2::ImageFactory::open(written.pData_, written.size_);
        target->readMetadata();  // a TIFF target keeps its own layout tags
        Exiv2::ExifData exif = target->exifData();
        for (const Exiv2::Exifdatum &datum : sourceExif)
            if (!describesFileLayout(datum))
                exif[datum.key()] = datum.value();
        if (exif.findKey(Exiv2::ExifKey("Exif.Photo.PixelXDimension")) != exif.end()) {
            exif["Exif.Photo.PixelXDimension"] = uint32_t(width);
            exif["Exif.Photo.PixelYDimension"] = uint32_t(height);
        }
        target->setExifData(exif);
        target->setXmpData(source->xmpData());
        if (icc.size_ > 0)
            target->setIccProfile(icc, false);
        target->writeMetadata();
        Exiv2::BasicIo &annotated = target->io();
        annotated.seek(0, Exiv2::BasicIo::beg);
        const Exiv2::DataBuf bytes = annotated.read(long(annotated.size()));
        if (bytes.size_ != long(annotated.size()))
            throw Exiv2::Error(Exiv2::kerFailedToReadImageData);
        return writeFileBytes(to, bytes.pData_, size_t(bytes.size_), error);
    } catch (const Exiv2::AnyError &e) {
        error = e.what();
        return false;
    } catch (const std::exception &e) {
        error = e.what();
        return false;
    }
    return true;
}

}  // namespace lumora_fuse
