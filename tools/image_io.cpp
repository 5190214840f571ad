// image_io.cpp: JPEG (libjpeg-turbo), PNG (libpng) and TIFF (libtiff) files
// as 8-bit RGB in, 8- or 16-bit RGB out.
#include "image_io.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <csetjmp>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <memory>

#include <sys/stat.h>

#include <jpeglib.h>
#include <jerror.h>
#include <png.h>
#include <tiffio.h>

namespace lumora_fuse {
namespace {

struct FileCloser {
    void operator()(FILE *f) const { if (f) fclose(f); }
};
using FilePtr = std::unique_ptr<FILE, FileCloser>;

// A file as the encoders and libtiff see it. The first failed write keeps its
// errno, so that a full disk, a file-size limit or a vanished folder is
// reported in the system's words rather than as an encoder's complaint.
struct Stream {
    FILE *fp = nullptr;
    int failure = 0;  // errno of the first failed write or close; 0 while all is well
};

bool streamWrite(Stream &stream, const void *data, size_t size) {
    if (stream.failure)
        return false;
    errno = 0;
    if (fwrite(data, 1, size, stream.fp) != size) {
        stream.failure = errno ? errno : EIO;
        return false;
    }
    return true;
}

// Flushes and closes the output. A failure of the file system wins over the
// encoder's message (encoderError, empty when the encoder finished).
bool finishOutput(FilePtr &file, Stream &stream, const std::string &encoderError, std::string &error) {
    errno = 0;
    if ((fflush(file.get()) != 0 || ferror(file.get())) && !stream.failure)
        stream.failure = errno ? errno : EIO;
    errno = 0;
    if (fclose(file.release()) != 0 && !stream.failure)
        stream.failure = errno ? errno : EIO;
    error = stream.failure ? strerror(stream.failure) : encoderError;
    return error.empty();
}

// Every reader asks this right after the header, before it allocates pixels.
bool sizeAllowed(long long width, long long height, const SizeCheck &check, std::string &error) {
    if (width <= 0 || height <= 0) {
        error = "the image has no pixels";
        return false;
    }
    if (width * height > kMaxPixels) {
        error = "image too large: " + std::to_string(width) + "x" + std::to_string(height) +
                " pixels (at most " + std::to_string(kMaxPixels / 1000000) + " megapixels)";
        return false;
    }
    return !check || check(int(width), int(height), error);
}

// Alpha that is the same everywhere marks no edge: it is dropped, unless it
// makes the whole picture transparent, which the caller refuses.
void keepVaryingAlpha(Image &image, std::vector<std::string> &notes) {
    const std::vector<unsigned char> &a = image.alpha;
    if (a.empty() || a[0] == 0 || std::find_if(a.begin(), a.end(), [&](unsigned char v) { return v != a[0]; }) != a.end())
        return;
    notes.push_back("alpha channel dropped");
    image.alpha.clear();
    image.alpha.shrink_to_fit();
}

// ---------------------------------------------------------------------------
// JPEG

struct JpegError {
    jpeg_error_mgr mgr;
    jmp_buf jump;
    char message[JMSG_LENGTH_MAX];
    int warningCode;
    char warning[JMSG_LENGTH_MAX];
};

void jpegErrorExit(j_common_ptr cinfo) {
    auto *err = reinterpret_cast<JpegError *>(cinfo->err);
    (*cinfo->err->format_message)(cinfo, err->message);
    longjmp(err->jump, 1);
}

// Warnings mean damaged data that libjpeg papers over (a truncated file is
// filled with grey): keep the first one so that the reader can refuse it.
void jpegEmitMessage(j_common_ptr cinfo, int level) {
    auto *err = reinterpret_cast<JpegError *>(cinfo->err);
    if (level < 0 && err->warningCode < 0) {
        err->warningCode = cinfo->err->msg_code;
        (*cinfo->err->format_message)(cinfo, err->warning);
    }
}

// A progressive file can hold thousands of tiny scans and take minutes to
// decode; no real photograph has more than a few dozen.
void jpegProgress(j_common_ptr cinfo) {
    if (cinfo->is_decompressor) {
        auto *d = reinterpret_cast<j_decompress_ptr>(cinfo);
        if (d->input_scan_number > 1000) {
            auto *err = reinterpret_cast<JpegError *>(cinfo->err);
            snprintf(err->message, sizeof err->message, "too many progressive scans");
            longjmp(err->jump, 1);
        }
    }
}

bool readJpeg(FILE *fp, Image &image, std::string &error, std::vector<std::string> &notes,
              const SizeCheck &check) {
    jpeg_decompress_struct cinfo;
    JpegError jerr;
    jpeg_progress_mgr progress{};
    cinfo.err = jpeg_std_error(&jerr.mgr);
    jerr.mgr.error_exit = jpegErrorExit;
    jerr.mgr.emit_message = jpegEmitMessage;
    jerr.warningCode = -1;
    jerr.message[0] = jerr.warning[0] = '\0';
    if (setjmp(jerr.jump)) {
        jpeg_destroy_decompress(&cinfo);
        error = std::string("corrupt JPEG data: ") + jerr.message;
        return false;
    }
    jpeg_create_decompress(&cinfo);
    progress.progress_monitor = jpegProgress;
    cinfo.progress = &progress;
    jpeg_stdio_src(&cinfo, fp);
    jpeg_read_header(&cinfo, TRUE);
    if (!sizeAllowed(cinfo.image_width, cinfo.image_height, check, error)) {
        jpeg_destroy_decompress(&cinfo);
        return false;
    }
    bool cmyk = false;
    switch (cinfo.jpeg_color_space) {
    case JCS_GRAYSCALE:
        notes.push_back("greyscale expanded to RGB");
        cinfo.out_color_space = JCS_RGB;
        break;
    case JCS_CMYK:
    case JCS_YCCK:
        notes.push_back("CMYK converted to RGB");
        cinfo.out_color_space = JCS_CMYK;
        cmyk = true;
        break;
    default:
        cinfo.out_color_space = JCS_RGB;
        break;
    }
    jpeg_start_decompress(&cinfo);
    const int w = cinfo.output_width, h = cinfo.output_height;
    image.width = w;
    image.height = h;
    image.rgb.assign(size_t(w) * h * 3, 0);
    // Owned by libjpeg's pool, so that a long jump out of the decoder leaks nothing.
    JSAMPARRAY rows = (*cinfo.mem->alloc_sarray)(reinterpret_cast<j_common_ptr>(&cinfo), JPOOL_IMAGE,
                                                 JDIMENSION(w) * cinfo.output_components, 1);
    const unsigned char *row = rows[0];
    while (cinfo.output_scanline < cinfo.output_height) {
        const int y = cinfo.output_scanline;
        jpeg_read_scanlines(&cinfo, rows, 1);
        unsigned char *out = image.rgb.data() + size_t(y) * w * 3;
        if (!cmyk) {
            memcpy(out, row, size_t(w) * 3);
            continue;
        }
        // Adobe writes CMYK inverted (255 = no ink), the usual case.
        const bool inverted = cinfo.saw_Adobe_marker;
        for (int x = 0; x < w; ++x) {
            int c = row[x * 4], m = row[x * 4 + 1], yy = row[x * 4 + 2], k = row[x * 4 + 3];
            if (!inverted) { c = 255 - c; m = 255 - m; yy = 255 - yy; k = 255 - k; }
            out[x * 3] = (unsigned char)(c * k / 255);
            out[x * 3 + 1] = (unsigned char)(m * k / 255);
            out[x * 3 + 2] = (unsigned char)(yy * k / 255);
        }
    }
    jpeg_finish_decompress(&cinfo);
    jpeg_destroy_decompress(&cinfo);
    if (jerr.warningCode == JWRN_JPEG_EOF) {
        error = "truncated JPEG file (premature end of data)";
        return false;
    }
    if (jerr.warningCode >= 0) {
        error = std::string("corrupt JPEG data: ") + jerr.warning;
        return false;
    }
    return true;
}

// libjpeg's own stdio destination reports every failure as a full disk; this
// one keeps the reason.
struct JpegDestination {
    jpeg_destination_mgr mgr;
    Stream *stream;
    JOCTET buffer[16384];
};

void jpegInitDestination(j_compress_ptr cinfo) {
    auto *dest = reinterpret_cast<JpegDestination *>(cinfo->dest);
    dest->mgr.next_output_byte = dest->buffer;
    dest->mgr.free_in_buffer = sizeof dest->buffer;
}

boolean jpegEmptyBuffer(j_compress_ptr cinfo) {
    auto *dest = reinterpret_cast<JpegDestination *>(cinfo->dest);
    if (!streamWrite(*dest->stream, dest->buffer, sizeof dest->buffer))
        ERREXIT(cinfo, JERR_FILE_WRITE);
    jpegInitDestination(cinfo);
    return TRUE;
}

void jpegTermDestination(j_compress_ptr cinfo) {
    auto *dest = reinterpret_cast<JpegDestination *>(cinfo->dest);
    if (!streamWrite(*dest->stream, dest->buffer, sizeof dest->buffer - dest->mgr.free_in_buffer))
        ERREXIT(cinfo, JERR_FILE_WRITE);
}

bool writeJpeg(const std::string &path, int width, int height, const unsigned char *rgb,
               int quality, std::string &error) {
    FilePtr file(fopen(path.c_str(), "wb"));
    if (!file) {
        error = strerror(errno);
        return false;
    }
    // Heap blocks: only what they hold changes after setjmp, so they are still valid after a long jump.
    const auto stream = std::make_unique<Stream>();
    const auto dest = std::make_unique<JpegDestination>();
    stream->fp = file.get();
    dest->stream = stream.get();
    dest->mgr.init_destination = jpegInitDestination;
    dest->mgr.empty_output_buffer = jpegEmptyBuffer;
    dest->mgr.term_destination = jpegTermDestination;
    jpeg_compress_struct cinfo;
    JpegError jerr;
    cinfo.err = jpeg_std_error(&jerr.mgr);
    jerr.mgr.error_exit = jpegErrorExit;
    jerr.mgr.emit_message = jpegEmitMessage;
    jerr.warningCode = -1;
    if (setjmp(jerr.jump)) {
        jpeg_destroy_compress(&cinfo);
        finishOutput(file, *stream, std::string("JPEG encoder: ") + jerr.message, error);
        return false;
    }
    jpeg_create_compress(&cinfo);
    cinfo.dest = &dest->mgr;
    cinfo.image_width = width;
    cinfo.image_height = height;
    cinfo.input_components = 3;
    cinfo.in_color_space = JCS_RGB;
    jpeg_set_defaults(&cinfo);
    jpeg_set_quality(&cinfo, quality, TRUE);
    cinfo.optimize_coding = TRUE;
    // Full-resolution colour at high quality: halving the chroma shows on
    // the fine colour edges that fusion brings back.
    if (quality >= 90)
        cinfo.comp_info[0].h_samp_factor = cinfo.comp_info[0].v_samp_factor = 1;
    jpeg_start_compress(&cinfo, TRUE);
    while (cinfo.next_scanline < cinfo.image_height) {
        JSAMPROW rows[1] = {const_cast<unsigned char *>(rgb) + size_t(cinfo.next_scanline) * width * 3};
        jpeg_write_scanlines(&cinfo, rows, 1);
    }
    jpeg_finish_compress(&cinfo);
    jpeg_destroy_compress(&cinfo);
    return finishOutput(file, *stream, "", error);
}

// ---------------------------------------------------------------------------
// PNG

struct PngContext {
    std::string message;
};

void pngError(png_structp png, png_const_charp message) {
    auto *ctx = static_cast<PngContext *>(png_get_error_ptr(png));
    ctx->message = message;
    png_longjmp(png, 1);
}

void pngWarning(png_structp, png_const_charp) {}  // benign (e.g. odd sRGB profiles)

bool readPng(FILE *fp, Image &image, std::string &error, std::vector<std::string> &notes,
             const SizeCheck &check) {
    PngContext ctx;
    png_structp png = png_create_read_struct(PNG_LIBPNG_VER_STRING, &ctx, pngError, pngWarning);
    if (!png) {
        error = "out of memory";
        return false;
    }
    png_infop info = png_create_info_struct(png);
    // Only the heap blocks change after setjmp, so they are still valid after a long jump.
    const auto rows = std::make_unique<std::vector<png_bytep>>();
    const auto rgba = std::make_unique<std::vector<unsigned char>>();
    if (!info || setjmp(png_jmpbuf(png))) {
        png_destroy_read_struct(&png, info ? &info : nullptr, nullptr);
        error = ctx.message == "Read Error" ? "truncated PNG file" : "corrupt PNG data: " + ctx.message;
        return false;
    }
    // Only the pixels are read here (metadata is copied by Exiv2), so every
    // ancillary chunk but tRNS is skipped unread. libpng allocates a text
    // chunk's stated length before reading it, whatever its chunk limit: a
    // 70-byte file claiming a 2 GB tEXt chunk took 2 GB before it was found
    // too short.
    png_set_keep_unknown_chunks(png, PNG_HANDLE_CHUNK_NEVER, nullptr, -1);
    png_init_io(png, fp);
    png_read_info(png, info);
    png_uint_32 w = 0, h = 0;
    int bitDepth = 0, colorType = 0, interlace = 0;
    png_get_IHDR(png, info, &w, &h, &bitDepth, &colorType, &interlace, nullptr, nullptr);
    if (!sizeAllowed(w, h, check, error)) {
        png_destroy_read_struct(&png, &info, nullptr);
        return false;
    }
    if (bitDepth == 16) {
        notes.push_back("16-bit samples reduced to 8 bits");
        png_set_scale_16(png);
    }
    if (colorType == PNG_COLOR_TYPE_PALETTE) {
        notes.push_back("palette expanded to RGB");
        png_set_palette_to_rgb(png);
    }
    if (!(colorType & PNG_COLOR_MASK_COLOR)) {
        notes.push_back("greyscale expanded to RGB");
        if (bitDepth < 8)
            png_set_expand_gray_1_2_4_to_8(png);
        png_set_gray_to_rgb(png);
    }
    const bool alpha = (colorType & PNG_COLOR_MASK_ALPHA) || png_get_valid(png, info, PNG_INFO_tRNS);
    if (alpha)
        png_set_tRNS_to_alpha(png);
    const int channels = alpha ? 4 : 3;
    png_set_interlace_handling(png);
    png_read_update_info(png, info);
    if (png_get_rowbytes(png, info) != size_t(w) * channels) {
        png_destroy_read_struct(&png, &info, nullptr);
        error = "unsupported PNG layout";
        return false;
    }
    image.width = int(w);
    image.height = int(h);
    std::vector<unsigned char> &pixels = alpha ? *rgba : image.rgb;
    pixels.assign(size_t(w) * h * channels, 0);
    rows->resize(h);
    for (png_uint_32 y = 0; y < h; ++y)
        (*rows)[y] = pixels.data() + size_t(y) * w * channels;
    png_read_image(png, rows->data());
    png_read_end(png, nullptr);
    png_destroy_read_struct(&png, &info, nullptr);
    if (alpha) {
        const size_t n = size_t(w) * h;
        image.rgb.resize(n * 3);
        image.alpha.resize(n);
        for (size_t i = 0; i < n; ++i) {
            memcpy(&image.rgb[i * 3], &(*rgba)[i * 4], 3);
            image.alpha[i] = (*rgba)[i * 4 + 3];
        }
        keepVaryingAlpha(image, notes);
    }
    return true;
}

void pngWrite(png_structp png, png_bytep data, size_t size) {
    if (!streamWrite(*static_cast<Stream *>(png_get_io_ptr(png)), data, size))
        png_error(png, "Write Error");
}

void pngFlush(png_structp) {}  // finishOutput flushes

bool writePng(const std::string &path, int width, int height, int depth, const void *samples,
              std::string &error) {
    FilePtr file(fopen(path.c_str(), "wb"));
    if (!file) {
        error = strerror(errno);
        return false;
    }
    const auto stream = std::make_unique<Stream>();  // heap: valid after a long jump
    stream->fp = file.get();
    PngContext ctx;
    png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, &ctx, pngError, pngWarning);
    png_infop info = png ? png_create_info_struct(png) : nullptr;
    if (!png || !info) {
        png_destroy_write_struct(&png, info ? &info : nullptr);
        finishOutput(file, *stream, "out of memory", error);
        return false;
    }
    if (setjmp(png_jmpbuf(png))) {
        png_destroy_write_struct(&png, &info);
        finishOutput(file, *stream, "PNG encoder: " + ctx.message, error);
        return false;
    }
    png_set_write_fn(png, stream.get(), pngWrite, pngFlush);
    png_set_IHDR(png, info, width, height, depth, PNG_COLOR_TYPE_RGB, PNG_INTERLACE_NONE,
                 PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
    png_write_info(png, info);
    if (depth == 16) {
        const uint16_t probe = 1;
        if (*reinterpret_cast<const unsigned char *>(&probe) == 1)
            png_set_swap(png);  // PNG stores 16-bit samples big-endian
    }
    const size_t rowBytes = size_t(width) * 3 * (depth / 8);
    const auto *bytes = static_cast<const unsigned char *>(samples);
    for (int y = 0; y < height; ++y)
        png_write_row(png, const_cast<png_bytep>(bytes + y * rowBytes));
    png_write_end(png, info);
    png_destroy_write_struct(&png, &info);
    return finishOutput(file, *stream, "", error);
}

// ---------------------------------------------------------------------------
// TIFF

// libtiff reports through process-wide handlers; keep the first error of the
// current operation.
thread_local std::string tiffMessage;

void tiffError(const char *module, const char *fmt, va_list ap) {
    if (!tiffMessage.empty())
        return;
    char buffer[512];
    vsnprintf(buffer, sizeof buffer, fmt, ap);
    tiffMessage = buffer;
    // Some messages run over two lines; ours are one.
    for (size_t at = tiffMessage.find('\n'); at != std::string::npos; at = tiffMessage.find('\n', at)) {
        const size_t end = tiffMessage.find_first_not_of(" \t\n", at);
        if (end == std::string::npos)
            tiffMessage.erase(at);
        else
            tiffMessage.replace(at, end - at, " ");
    }
    // Streams are opened under the names "input" and "output"; the caller names the file.
    for (const char *name : {"input: ", "output: "})
        if (tiffMessage.rfind(name, 0) == 0)
            tiffMessage.erase(0, strlen(name));
}

void tiffWarning(const char *, const char *, va_list) {}  // unknown tags and the like

void installTiffHandlers() {
    static const bool installed = [] {
        TIFFSetErrorHandler(tiffError);
        TIFFSetWarningHandler(tiffWarning);
        return true;
    }();
    (void)installed;
    tiffMessage.clear();
}

// libtiff's handle is a Stream.
tmsize_t tiffRead(thandle_t h, void *buf, tmsize_t size) {
    return tmsize_t(fread(buf, 1, size_t(size), static_cast<Stream *>(h)->fp));
}
tmsize_t tiffWrite(thandle_t h, void *buf, tmsize_t size) {
    return streamWrite(*static_cast<Stream *>(h), buf, size_t(size)) ? size : 0;
}
toff_t tiffSeek(thandle_t h, toff_t off, int whence) {
    Stream *stream = static_cast<Stream *>(h);
    errno = 0;
    if (fseeko(stream->fp, off_t(off), whence) != 0) {  // a seek writes out what is buffered
        if (!stream->failure)
            stream->failure = errno ? errno : EIO;
        return toff_t(-1);
    }
    return toff_t(ftello(stream->fp));
}
int tiffClose(thandle_t) { return 0; }
toff_t tiffSize(thandle_t h) {
    FILE *f = static_cast<Stream *>(h)->fp;
    const off_t here = ftello(f);
    fseeko(f, 0, SEEK_END);
    const off_t end = ftello(f);
    fseeko(f, here, SEEK_SET);
    return toff_t(end);
}
int tiffMap(thandle_t, void **, toff_t *) { return 0; }
void tiffUnmap(thandle_t, void *, toff_t) {}

// A classic TIFF cut short usually loses its directory, which writers put last.
bool directoryPastEnd(FILE *fp) {
    unsigned char header[8];
    if (fread(header, 1, sizeof header, fp) != sizeof header || header[2] + header[3] != 42) {
        rewind(fp);
        return false;
    }
    const bool little = header[0] == 'I';
    const uint32_t offset = little ? uint32_t(header[4]) | uint32_t(header[5]) << 8 | uint32_t(header[6]) << 16 |
                                         uint32_t(header[7]) << 24
                                   : uint32_t(header[7]) | uint32_t(header[6]) << 8 | uint32_t(header[5]) << 16 |
                                         uint32_t(header[4]) << 24;
    Stream stream{fp};
    const bool past = uint64_t(offset) + 2 > uint64_t(tiffSize(&stream));
    rewind(fp);
    return past;
}

bool readTiff(FILE *fp, Image &image, std::string &error, std::vector<std::string> &notes,
              const SizeCheck &check) {
    installTiffHandlers();
    Stream stream{fp};
    TIFF *tif = TIFFClientOpen("input", "rm", &stream, tiffRead, tiffWrite, tiffSeek, tiffClose,
                               tiffSize, tiffMap, tiffUnmap);
    if (!tif) {
        rewind(fp);
        if (directoryPastEnd(fp))
            error = "truncated TIFF file (its directory lies past the end of the file)";
        else
            error = "corrupt TIFF file" + (tiffMessage.empty() ? std::string() : ": " + tiffMessage);
        return false;
    }
    std::unique_ptr<TIFF, void (*)(TIFF *)> owner(tif, TIFFClose);
    uint32_t w = 0, h = 0;
    uint16_t bits = 8, spp = 1, photometric = 0, extraCount = 0;
    uint16_t *extra = nullptr;
    TIFFGetField(tif, TIFFTAG_IMAGEWIDTH, &w);
    TIFFGetField(tif, TIFFTAG_IMAGELENGTH, &h);
    TIFFGetFieldDefaulted(tif, TIFFTAG_BITSPERSAMPLE, &bits);
    TIFFGetFieldDefaulted(tif, TIFFTAG_SAMPLESPERPIXEL, &spp);
    TIFFGetFieldDefaulted(tif, TIFFTAG_EXTRASAMPLES, &extraCount, &extra);
    TIFFGetField(tif, TIFFTAG_PHOTOMETRIC, &photometric);
    if (!sizeAllowed(w, h, check, error))
        return false;
    char message[1024] = "";
    if (!TIFFRGBAImageOK(tif, message)) {
        error = std::string("unsupported TIFF layout: ") + message;
        return false;
    }
    TIFFRGBAImage rgba;
    if (!TIFFRGBAImageBegin(&rgba, tif, 1, message)) {
        error = std::string("unsupported TIFF layout: ") + message;
        return false;
    }
    // The pixels keep the file's row order; the orientation tag travels with
    // the metadata instead.
    rgba.req_orientation = rgba.orientation;
    std::vector<uint32_t> raster(size_t(w) * h);
    const int ok = TIFFRGBAImageGet(&rgba, raster.data(), w, h);
    TIFFRGBAImageEnd(&rgba);
    if (!ok) {
        error = "corrupt or truncated TIFF data" +
                (tiffMessage.empty() ? std::string() : ": " + tiffMessage);
        return false;
    }
    if (bits > 8)
        notes.push_back(std::to_string(bits) + "-bit samples reduced to 8 bits");
    if (photometric == PHOTOMETRIC_MINISBLACK || photometric == PHOTOMETRIC_MINISWHITE)
        notes.push_back("greyscale expanded to RGB");
    else if (photometric == PHOTOMETRIC_PALETTE)
        notes.push_back("palette expanded to RGB");
    else if (photometric == PHOTOMETRIC_SEPARATED)
        notes.push_back("CMYK converted to RGB");
    image.width = int(w);
    image.height = int(h);
    image.rgb.resize(size_t(w) * h * 3);
    if (extraCount > 0)
        image.alpha.resize(raster.size());
    for (size_t i = 0; i < raster.size(); ++i) {
        image.rgb[i * 3] = (unsigned char)TIFFGetR(raster[i]);
        image.rgb[i * 3 + 1] = (unsigned char)TIFFGetG(raster[i]);
        image.rgb[i * 3 + 2] = (unsigned char)TIFFGetB(raster[i]);
        if (extraCount > 0)
            image.alpha[i] = (unsigned char)TIFFGetA(raster[i]);
    }
    keepVaryingAlpha(image, notes);
    return true;
}

bool writeTiff(const std::string &path, int width, int height, int depth, const void *samples,
               std::string &error) {
    installTiffHandlers();
    FilePtr file(fopen(path.c_str(), "w+b"));  // libtiff reads back what it wrote
    if (!file) {
        error = strerror(errno);
        return false;
    }
    Stream stream{file.get()};
    TIFF *tif = TIFFClientOpen("output", "w", &stream, tiffRead, tiffWrite, tiffSeek, tiffClose, tiffSize,
                               tiffMap, tiffUnmap);
    if (!tif) {
        finishOutput(file, stream, tiffMessage.empty() ? "TIFF encoder failed" : tiffMessage, error);
        return false;
    }
    TIFFSetField(tif, TIFFTAG_IMAGEWIDTH, uint32_t(width));
    TIFFSetField(tif, TIFFTAG_IMAGELENGTH, uint32_t(height));
    TIFFSetField(tif, TIFFTAG_SAMPLESPERPIXEL, uint16_t(3));
    TIFFSetField(tif, TIFFTAG_BITSPERSAMPLE, uint16_t(depth));
    TIFFSetField(tif, TIFFTAG_PHOTOMETRIC, PHOTOMETRIC_RGB);
    TIFFSetField(tif, TIFFTAG_PLANARCONFIG, PLANARCONFIG_CONTIG);
    TIFFSetField(tif, TIFFTAG_ORIENTATION, ORIENTATION_TOPLEFT);
    TIFFSetField(tif, TIFFTAG_COMPRESSION, COMPRESSION_LZW);
    TIFFSetField(tif, TIFFTAG_PREDICTOR, PREDICTOR_HORIZONTAL);
    TIFFSetField(tif, TIFFTAG_ROWSPERSTRIP, TIFFDefaultStripSize(tif, 0));
    const size_t rowBytes = size_t(width) * 3 * (depth / 8);
    std::vector<unsigned char> row(rowBytes);  // the predictor works in place
    const auto *bytes = static_cast<const unsigned char *>(samples);
    bool ok = true;
    for (int y = 0; y < height && ok; ++y) {
        memcpy(row.data(), bytes + y * rowBytes, rowBytes);
        ok = TIFFWriteScanline(tif, row.data(), uint32_t(y), 0) == 1;
    }
    ok = TIFFFlush(tif) == 1 && ok;
    TIFFClose(tif);
    return finishOutput(file, stream, ok ? "" : tiffMessage.empty() ? "TIFF encoder failed" : tiffMessage,
                        error);
}

// ---------------------------------------------------------------------------

bool readStream(FILE *fp, Image &image, std::string &error, std::vector<std::string> *notes,
                const SizeCheck &check) {
    unsigned char magic[4] = {0, 0, 0, 0};
    const size_t got = fread(magic, 1, sizeof magic, fp);
    if (ferror(fp)) {
        error = strerror(errno);
        return false;
    }
    if (got == 0) {
        error = "empty file, not an image";
        return false;
    }
    rewind(fp);
    std::vector<std::string> localNotes;
    bool ok;
    if (got >= 3 && magic[0] == 0xFF && magic[1] == 0xD8 && magic[2] == 0xFF)
        ok = readJpeg(fp, image, error, localNotes, check);
    else if (got == 4 && magic[0] == 0x89 && magic[1] == 'P' && magic[2] == 'N' && magic[3] == 'G')
        ok = readPng(fp, image, error, localNotes, check);
    else if (got == 4 && ((magic[0] == 'I' && magic[1] == 'I' && (magic[2] == 42 || magic[2] == 43) && magic[3] == 0) ||
                          (magic[0] == 'M' && magic[1] == 'M' && magic[2] == 0 && (magic[3] == 42 || magic[3] == 43))))
        ok = readTiff(fp, image, error, localNotes, check);
    else {
        error = "not a JPEG, PNG or TIFF image";
        return false;
    }
    if (!ok) {
        image = Image();
        return false;
    }
    if (notes)
        notes->insert(notes->end(), localNotes.begin(), localNotes.end());
    return true;
}

}  // namespace

FileFormat formatFromExtension(const std::string &path) {
    const size_t slash = path.find_last_of('/');
    const size_t dot = path.find_last_of('.');
    if (dot == std::string::npos || (slash != std::string::npos && dot < slash))
        return FileFormat::Unknown;
    std::string ext = path.substr(dot + 1);
    std::transform(ext.begin(), ext.end(), ext.begin(), [](unsigned char c) { return (char)std::tolower(c); });
    if (ext == "jpg" || ext == "jpeg")
        return FileFormat::Jpeg;
    if (ext == "png")
        return FileFormat::Png;
    if (ext == "tif" || ext == "tiff")
        return FileFormat::Tiff;
    return FileFormat::Unknown;
}

const char *formatName(FileFormat format) {
    switch (format) {
    case FileFormat::Jpeg: return "JPEG";
    case FileFormat::Png: return "PNG";
    case FileFormat::Tiff: return "TIFF";
    default: return "unknown";
    }
}

bool readImage(const std::string &path, Image &image, std::string &error,
               std::vector<std::string> *notes, const SizeCheck &check) {
    struct stat st;
    if (stat(path.c_str(), &st) != 0) {
        error = strerror(errno);
        return false;
    }
    if (S_ISDIR(st.st_mode)) {
        error = "is a directory, not an image";
        return false;
    }
    if (!S_ISREG(st.st_mode)) {
        error = "is not a regular file";  // a pipe or device could block forever
        return false;
    }
    FilePtr fp(fopen(path.c_str(), "rb"));
    if (!fp) {
        error = strerror(errno);
        return false;
    }
    return readStream(fp.get(), image, error, notes, check);
}

bool readImageMemory(const unsigned char *data, size_t size, Image &image, std::string &error,
                     std::vector<std::string> *notes, const SizeCheck &check) {
    if (size == 0) {
        error = "empty file, not an image";
        return false;
    }
    FilePtr fp(fmemopen(const_cast<unsigned char *>(data), size, "rb"));
    if (!fp) {
        error = strerror(errno);
        return false;
    }
    return readStream(fp.get(), image, error, notes, check);
}

bool writeImage(const std::string &path, FileFormat format, int width, int height, int depth,
                const void *samples, int quality, std::string &error) {
    if (depth != 8 && depth != 16) {
        error = "unsupported depth " + std::to_string(depth);
        return false;
    }
    switch (format) {
    case FileFormat::Jpeg:
        if (depth != 8) {
            error = "JPEG holds 8-bit samples only";
            return false;
        }
        return writeJpeg(path, width, height, static_cast<const unsigned char *>(samples),
                         std::clamp(quality, 1, 100), error);
    case FileFormat::Png:
        return writePng(path, width, height, depth, samples, error);
    case FileFormat::Tiff:
        return writeTiff(path, width, height, depth, samples, error);
    default:
        error = "unknown output format";
        return false;
    }
}

bool writeFileBytes(const std::string &path, const void *data, size_t size, std::string &error) {
    FilePtr file(fopen(path.c_str(), "wb"));
    if (!file) {
        error = strerror(errno);
        return false;
    }
    Stream stream{file.get()};
    streamWrite(stream, data, size);
    return finishOutput(file, stream, std::string(), error);
}

}  // namespace lumora_fuse
