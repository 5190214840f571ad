/* host.c: a small host program of the fusion library, built against an
 * installed tree by the install test (and shown in the README).
 *
 *   host write DIR           writes a made-up 48x40 bracket as
 *                            DIR/exposure-0.png (darkest) .. exposure-2.png,
 *                            fuses it with the default parameters in the two
 *                            passes that lumora-fuse --look library makes,
 *                            and writes the result's raw RGB bytes to
 *                            DIR/fused.rgb
 *   host raw IN.png OUT.rgb  writes the raw RGB bytes of a PNG image
 *
 * Built with -DOWN_PLATFORM_FUNCTIONS, the program brings its own HXwritejpg,
 * frgb2hsl and fhsl2rgb instead of linking the default host. Its HSL
 * conversions make every colour grey; "write" then fails unless they were
 * called and the result is grey. */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <BilateralFilter.h>
#include <png.h>

enum { W = 48, H = 40, IMAGE_BYTES = W * H * 3 };

#ifdef OWN_PLATFORM_FUNCTIONS
#include <stdatomic.h>

static atomic_long hslCalls; /* the library converts from its worker threads */

void frgb2hsl(const float *rgb, float *hsl) {
    atomic_fetch_add(&hslCalls, 1);
    hsl[0] = 0.0f;
    hsl[1] = 0.0f;
    hsl[2] = (rgb[0] + rgb[1] + rgb[2]) / 3.0f;
}

void fhsl2rgb(const float *hsl, float *rgb) {
    rgb[0] = rgb[1] = rgb[2] = hsl[2];
}

int HXwritejpg(const char *name, int quality, int *saveInfos, int rowBytes, int reserved1,
               int reserved2, void *reserved3, int reserved4, void *reserved5, int reserved6,
               void *reserved7, unsigned char *pixels) {
    return -1; /* only the library's debug dumps write JPEG files */
}
#endif

static int writePng(const char *path, const unsigned char *rgb) {
    png_image image;
    memset(&image, 0, sizeof image);
    image.version = PNG_IMAGE_VERSION;
    image.width = W;
    image.height = H;
    image.format = PNG_FORMAT_RGB;
    return png_image_write_to_file(&image, path, 0, rgb, 0, NULL) ? 0 : -1;
}

static int writeRaw(const char *path, const unsigned char *bytes, size_t size) {
    FILE *f = fopen(path, "wb");
    int ok = f && fwrite(bytes, 1, size, f) == size;
    if (f && fclose(f) != 0) ok = 0;
    return ok ? 0 : -1;
}

/* Three exposures of one made-up scene (a gradient, a checkerboard, coloured
 * stripes), darkest first: the scene's values reach 1000, and each exposure
 * scales them by its gain and clips at 255. */
static void makeBracket(unsigned char *images) {
    static const int gain[3] = {2, 8, 32};
    for (int k = 0; k < 3; k++)
        for (int y = 0; y < H; y++)
            for (int x = 0; x < W; x++) {
                const int v = 8 + x * 600 / W + y * 100 / H + ((x / 8 + y / 8) % 2) * 280;
                const int scene[3] = {v, v * 3 / 4 + 20, v / 2 + (y % 5 == 0) * 120};
                unsigned char *px = images + (size_t)k * IMAGE_BYTES + ((size_t)y * W + x) * 3;
                for (int c = 0; c < 3; c++) {
                    const int s = scene[c] * gain[k] / 16;
                    px[c] = (unsigned char)(s > 255 ? 255 : s);
                }
            }
}

static int completed; /* the last progress report, 1.0, comes only on completion */

static void onProgress(int *cancel, float amount) {
    if (amount >= 1.0f) completed = 1;
}

static int fuseAndWrite(const char *dir) {
    static unsigned char images[3 * IMAGE_BYTES], firstPass[IMAGE_BYTES], result[IMAGE_BYTES];
    char path[4096];
    makeBracket(images);
    for (int k = 0; k < 3; k++) {
        snprintf(path, sizeof path, "%s/exposure-%d.png", dir, k);
        if (writePng(path, images + (size_t)k * IMAGE_BYTES) != 0) return 1;
    }

    float param[LUMORA_FUSION_PARAM_COUNT];
    init_realistic_param(param);
    param[7] = 0.0f; /* first pass: highlight preservation off */
    optim_param_struct opt;
    memset(&opt, 0, sizeof opt);
    opt.nbProc = 2;
    completed = 0;
    hx_fusion2(opt, param, 3, W, H, W, H, W * 3, 0, 3, 8, 8, 8, NULL, images, NULL, firstPass,
               onProgress);
    if (!completed) return 1;
    /* Second pass: the highlights from the darkest exposure. */
    init_realistic_param(param);
    completed = 0;
    hx_combi_realistic(opt, param, W, H, W * 3, 0, 3, 8, 8, 8, firstPass, images, result,
                       onProgress);
    if (!completed) return 1;

#ifdef OWN_PLATFORM_FUNCTIONS
    if (atomic_load(&hslCalls) < 2L * W * H) {
        fprintf(stderr, "host: the library made %ld calls of the host's frgb2hsl\n",
                (long)atomic_load(&hslCalls));
        return 1;
    }
    for (int i = 0; i < IMAGE_BYTES; i += 3)
        if (result[i] != result[i + 1] || result[i] != result[i + 2]) {
            fprintf(stderr, "host: pixel %d is not grey\n", i / 3);
            return 1;
        }
#endif
    snprintf(path, sizeof path, "%s/fused.rgb", dir);
    return writeRaw(path, result, sizeof result) != 0;
}

static int pngToRaw(const char *in, const char *out) {
    png_image image;
    memset(&image, 0, sizeof image);
    image.version = PNG_IMAGE_VERSION;
    if (!png_image_begin_read_from_file(&image, in)) return 1;
    image.format = PNG_FORMAT_RGB;
    const size_t size = PNG_IMAGE_SIZE(image);
    unsigned char *pixels = malloc(size);
    int status = !pixels || !png_image_finish_read(&image, NULL, pixels, 0, NULL) ||
                 writeRaw(out, pixels, size) != 0;
    free(pixels);
    return status;
}

int main(int argc, char **argv) {
    if (argc == 3 && strcmp(argv[1], "write") == 0) return fuseAndWrite(argv[2]);
    if (argc == 4 && strcmp(argv[1], "raw") == 0) return pngToRaw(argv[2], argv[3]);
    fprintf(stderr, "usage: host write DIR | host raw IN.png OUT.rgb\n");
    return 2;
}
