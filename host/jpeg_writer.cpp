// Default host JPEG writer: a baseline JPEG through libjpeg-turbo.
//
// libjpeg reports errors by calling error_exit, which by default ends the
// process. Here it jumps back to HXwritejpg, which cleans up and returns -1.
// Nothing with a destructor lives between setjmp and the encoder calls, so
// the jump skips no C++ clean-up.
#include <algorithm>
#include <csetjmp>
#include <cstdio>

#include <sys/stat.h>

#include <jpeglib.h>

#include "Lumora32.h"

namespace {

struct ErrorManager {
    jpeg_error_mgr pub;  // first, so the library's pointer is ours too
    std::jmp_buf jump;
};

void onJpegError(j_common_ptr cinfo) {
    std::longjmp(reinterpret_cast<ErrorManager *>(cinfo->err)->jump, 1);
}

bool isRegularFile(std::FILE *file) {
    struct stat info {};
    return fstat(fileno(file), &info) == 0 && S_ISREG(info.st_mode);
}

}  // namespace

extern "C" LUMORA_API int HXwritejpg(const char *name, int quality, int *saveInfos, int rowBytes,
                                     int reserved1, int reserved2, void *reserved3, int reserved4,
                                     void *reserved5, int reserved6, void *reserved7,
                                     unsigned char *pixels) {
    if (!name || !saveInfos || !pixels) return -1;
    const int width = saveInfos[0];
    const int height = saveInfos[1];
    // Only interleaved 8-bit RGB is written.
    if (width <= 0 || height <= 0 || saveInfos[2] != 3 || saveInfos[3] != 8 ||
        rowBytes < width * 3)
        return -1;

    std::FILE *file = std::fopen(name, "wb");
    if (!file) return -1;
    // A failed write removes the partial file, but never anything that is not
    // a regular file (a device such as /dev/full, for instance).
    const bool removable = isRegularFile(file);

    jpeg_compress_struct cinfo;
    ErrorManager errors;
    cinfo.err = jpeg_std_error(&errors.pub);
    errors.pub.error_exit = onJpegError;
    if (setjmp(errors.jump)) {
        jpeg_destroy_compress(&cinfo);
        std::fclose(file);
        if (removable) std::remove(name);
        return -1;
    }
    jpeg_create_compress(&cinfo);
    jpeg_stdio_dest(&cinfo, file);
    cinfo.image_width = static_cast<JDIMENSION>(width);
    cinfo.image_height = static_cast<JDIMENSION>(height);
    cinfo.input_components = 3;
    cinfo.in_color_space = JCS_RGB;
    jpeg_set_defaults(&cinfo);
    jpeg_set_quality(&cinfo, std::clamp(quality, 1, 100), TRUE);
    if (saveInfos[4] > 0 && saveInfos[5] > 0) {
        cinfo.write_JFIF_header = TRUE;
        cinfo.density_unit = 1;  // dots per inch
        cinfo.X_density = static_cast<UINT16>(std::min(saveInfos[4], 65535));
        cinfo.Y_density = static_cast<UINT16>(std::min(saveInfos[5], 65535));
    }
    jpeg_start_compress(&cinfo, TRUE);
    while (cinfo.next_scanline < cinfo.image_height) {
        JSAMPROW row = pixels + static_cast<size_t>(cinfo.next_scanline) * rowBytes;
        jpeg_write_scanlines(&cinfo, &row, 1);
    }
    jpeg_finish_compress(&cinfo);
    jpeg_destroy_compress(&cinfo);

    if (std::fclose(file) != 0) {
        if (removable) std::remove(name);
        return -1;
    }
    return 0;
}
