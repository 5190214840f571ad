// test_cli.cpp: lumora-fuse run as a user runs it, on files made here from
// the shipped sample bracket, with its outputs read back by the image
// libraries.
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <exiv2/exiv2.hpp>
#include <gtest/gtest.h>
#include <png.h>
#include <tiffio.h>

#include "image_io.h"

extern char **environ;

namespace fs = std::filesystem;
using namespace lumora_fuse;

namespace {

std::string slurp(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

void spill(const std::string &path, const std::string &bytes) {
    std::ofstream(path, std::ios::binary) << bytes;
}

Image load(const std::string &path) {
    Image image;
    std::string error;
    EXPECT_TRUE(readImage(path, image, error)) << path << ": " << error;
    return image;
}

void save(const std::string &path, const Image &image, int quality = 98) {
    std::string error;
    ASSERT_TRUE(writeImage(path, formatFromExtension(path), image.width, image.height, 8,
                           image.rgb.data(), quality, error)) << error;
}

// The shipped bracket (darkest first), shrunk by box averaging.
Image shrink(const Image &in, int factor) {
    Image out;
    out.width = in.width / factor;
    out.height = in.height / factor;
    out.rgb.resize(size_t(out.width) * out.height * 3);
    for (int y = 0; y < out.height; ++y)
        for (int x = 0; x < out.width; ++x)
            for (int c = 0; c < 3; ++c) {
                int sum = 0;
                for (int dy = 0; dy < factor; ++dy)
                    for (int dx = 0; dx < factor; ++dx)
                        sum += in.rgb[((size_t(y) * factor + dy) * in.width + x * factor + dx) * 3 + c];
                out.rgb[(size_t(y) * out.width + x) * 3 + c] = (unsigned char)(sum / (factor * factor));
            }
    return out;
}

Image sample(int index) {
    static const char *names[] = {"0_dark.png", "1_mid.png", "2_bright.png"};
    return load(std::string(LUMORA_SAMPLES_DIR) + "/belgium_house/" + names[index]);
}

double meanAbsDiff(const std::vector<unsigned char> &a, const std::vector<unsigned char> &b) {
    double sum = 0;
    for (size_t i = 0; i < a.size(); ++i)
        sum += std::abs(int(a[i]) - int(b[i]));
    return sum / double(a.size());
}

Image crop(const Image &in, int x0, int y0, int w, int h) {
    Image out{w, h, {}};
    for (int y = 0; y < h; ++y)
        out.rgb.insert(out.rgb.end(), in.rgb.begin() + ((size_t(y0) + y) * in.width + x0) * 3,
                       in.rgb.begin() + ((size_t(y0) + y) * in.width + x0 + w) * 3);
    return out;
}

// Raw PNG writer for the layouts the tool converts (grey, grey+alpha, palette, 16-bit).
void writePng(const std::string &path, int w, int h, int colorType, int depth,
              const std::vector<unsigned char> &rows, const std::vector<png_color> &palette = {}) {
    FILE *fp = fopen(path.c_str(), "wb");
    ASSERT_NE(fp, nullptr);
    png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
    png_infop info = png_create_info_struct(png);
    png_init_io(png, fp);
    png_set_IHDR(png, info, w, h, depth, colorType, PNG_INTERLACE_NONE, PNG_COMPRESSION_TYPE_DEFAULT,
                 PNG_FILTER_TYPE_DEFAULT);
    if (!palette.empty())
        png_set_PLTE(png, info, palette.data(), int(palette.size()));
    png_write_info(png, info);
    const size_t rowBytes = rows.size() / h;
    for (int y = 0; y < h; ++y)
        png_write_row(png, rows.data() + y * rowBytes);
    png_write_end(png, info);
    png_destroy_write_struct(&png, &info);
    fclose(fp);
}

void writeTiff(const std::string &path, int w, int h, int spp, int depth, int compression,
               const void *samples) {
    TIFF *tif = TIFFOpen(path.c_str(), "w");
    ASSERT_NE(tif, nullptr);
    TIFFSetField(tif, TIFFTAG_IMAGEWIDTH, w);
    TIFFSetField(tif, TIFFTAG_IMAGELENGTH, h);
    TIFFSetField(tif, TIFFTAG_SAMPLESPERPIXEL, spp);
    TIFFSetField(tif, TIFFTAG_BITSPERSAMPLE, depth);
    TIFFSetField(tif, TIFFTAG_PHOTOMETRIC, spp == 3 ? PHOTOMETRIC_RGB : PHOTOMETRIC_MINISBLACK);
    TIFFSetField(tif, TIFFTAG_PLANARCONFIG, PLANARCONFIG_CONTIG);
    TIFFSetField(tif, TIFFTAG_COMPRESSION, compression);
    TIFFSetField(tif, TIFFTAG_ROWSPERSTRIP, 8);
    const size_t rowBytes = size_t(w) * spp * depth / 8;
    for (int y = 0; y < h; ++y)
        TIFFWriteScanline(tif, (unsigned char *)samples + y * rowBytes, y, 0);
    TIFFClose(tif);
}

// 16-bit RGB as written by the tool, native-endian; depth reports what the file says.
std::vector<uint16_t> read16(const std::string &path, int &depth) {
    std::vector<uint16_t> out;
    depth = 0;
    if (formatFromExtension(path) == FileFormat::Png) {
        FILE *fp = fopen(path.c_str(), "rb");
        png_structp png = png_create_read_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
        png_infop info = png_create_info_struct(png);
        png_init_io(png, fp);
        png_read_png(png, info, PNG_TRANSFORM_SWAP_ENDIAN, nullptr);
        depth = png_get_bit_depth(png, info);
        const int w = png_get_image_width(png, info), h = png_get_image_height(png, info);
        png_bytepp rows = png_get_rows(png, info);
        out.resize(size_t(w) * h * 3);
        for (int y = 0; y < h && depth == 16; ++y)
            memcpy(out.data() + size_t(y) * w * 3, rows[y], size_t(w) * 6);
        png_destroy_read_struct(&png, &info, nullptr);
        fclose(fp);
    } else {
        TIFF *tif = TIFFOpen(path.c_str(), "r");
        uint32_t w = 0, h = 0;
        uint16_t bits = 0;
        TIFFGetField(tif, TIFFTAG_IMAGEWIDTH, &w);
        TIFFGetField(tif, TIFFTAG_IMAGELENGTH, &h);
        TIFFGetField(tif, TIFFTAG_BITSPERSAMPLE, &bits);
        depth = bits;
        out.resize(size_t(w) * h * 3);
        for (uint32_t y = 0; y < h && depth == 16; ++y)
            TIFFReadScanline(tif, out.data() + size_t(y) * w * 3, y, 0);
        TIFFClose(tif);
    }
    return out;
}

struct ToolRun {
    int status = -1;   // exit status, or 128 + signal
    std::string out;   // the standard output
    std::string err;   // the standard error stream
    std::vector<std::string> lines() const {
        std::vector<std::string> out;
        std::istringstream in(err);
        for (std::string line; std::getline(in, line);)
            out.push_back(line);
        return out;
    }
};

class Cli : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        for (int i = 0; i < 3; ++i)
            bracket_[i] = shrink(sample(i), 4);  // 128x96
    }

    void SetUp() override {
        char name[] = "/tmp/lumora-cli-XXXXXX";
        ASSERT_NE(mkdtemp(name), nullptr);
        dir_ = name;
        errPath_ = dir_ + ".stderr";
        outPath_ = dir_ + ".stdout";
    }
    void TearDown() override {
        fs::remove_all(dir_);
        fs::remove(errPath_);
        fs::remove(outPath_);
    }

    std::string at(const std::string &name) const { return dir_ + "/" + name; }

    // The bracket written as files, e.g. {"d.png", "m.jpg", "b.tif"}, darkest first.
    std::vector<std::string> writeBracket(const std::vector<std::string> &names,
                                          const std::vector<int> &exposures = {0, 1, 2}) {
        std::vector<std::string> paths;
        for (size_t i = 0; i < names.size(); ++i) {
            paths.push_back(at(names[i]));
            save(paths.back(), bracket_[exposures[i]]);
        }
        return paths;
    }

    std::set<std::string> listing() const {
        std::set<std::string> names;
        for (const auto &entry : fs::directory_iterator(dir_))
            names.insert(entry.path().filename().string());
        return names;
    }

    pid_t start(const std::vector<std::string> &args) const {
        std::vector<char *> argv{const_cast<char *>(LUMORA_FUSE_BINARY)};
        for (const std::string &a : args)
            argv.push_back(const_cast<char *>(a.c_str()));
        argv.push_back(nullptr);
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addopen(&actions, 1, outPath_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        posix_spawn_file_actions_addopen(&actions, 2, errPath_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        pid_t pid = -1;
        EXPECT_EQ(posix_spawn(&pid, LUMORA_FUSE_BINARY, &actions, nullptr, argv.data(), environ), 0);
        posix_spawn_file_actions_destroy(&actions);
        return pid;
    }

    ToolRun finish(pid_t pid) const {
        int status = 0;
        waitpid(pid, &status, 0);
        ToolRun r;
        r.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        r.out = slurp(outPath_);
        r.err = slurp(errPath_);
        return r;
    }

    ToolRun run(const std::vector<std::string> &args) const { return finish(start(args)); }

    // Starts a fusion of a 2048x1536 bracket (seconds per pyramid run) and
    // returns once the library is at work.
    pid_t startLargeFusion() {
        std::vector<std::string> in;
        for (int i = 0; i < 3; ++i) {
            const Image small = sample(i);
            Image big{small.width * 4, small.height * 4, {}};
            big.rgb.resize(size_t(big.width) * big.height * 3);
            for (int y = 0; y < big.height; ++y)
                for (int x = 0; x < big.width; ++x)
                    memcpy(&big.rgb[(size_t(y) * big.width + x) * 3],
                           &small.rgb[(size_t(y / 4) * small.width + x / 4) * 3], 3);
            in.push_back(at("big" + std::to_string(i) + ".jpg"));
            save(in.back(), big, 90);
        }
        largeInputs_ = listing();
        const pid_t pid = start({"--verbose", in[1], in[0], in[2], "-o", at("fused.png")});
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(120);
        while (slurp(errPath_).find("REAL-FILTER") == std::string::npos &&
               std::chrono::steady_clock::now() < deadline)
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        EXPECT_NE(slurp(errPath_).find("REAL-FILTER"), std::string::npos) << "the fusion never started";
        return pid;
    }

    static Image bracket_[3];
    std::string dir_, errPath_, outPath_;
    std::set<std::string> largeInputs_;
};
Image Cli::bracket_[3];

TEST_F(Cli, FusesTwoExposuresQuietlyIntoJpeg) {
    const auto in = writeBracket({"dark.png", "bright.png"}, {0, 2});
    const ToolRun r = run({in[0], in[1], "-o", at("fused.jpg")});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.err, "") << "the library's commentary must not reach a normal run";
    const Image out = load(at("fused.jpg"));
    EXPECT_EQ(out.width, 128);
    EXPECT_EQ(out.height, 96);
    EXPECT_GT(*std::max_element(out.rgb.begin(), out.rgb.end()) - *std::min_element(out.rgb.begin(), out.rgb.end()), 100);
    EXPECT_EQ(listing(), (std::set<std::string>{"dark.png", "bright.png", "fused.jpg"}));
}

TEST_F(Cli, ReadsEveryInputFormatAndWritesEveryOutputFormat) {
    // The middle exposure as a PackBits TIFF, as cameras and scanners write them.
    auto in = writeBracket({"dark.jpg", "mid.png", "bright.png"});
    in[1] = at("mid.tif");
    writeTiff(in[1], 128, 96, 3, 8, COMPRESSION_PACKBITS, bracket_[1].rgb.data());
    fs::remove(at("mid.png"));
    for (const char *name : {"fused.png", "fused.tif", "fused.jpg"}) {
        const ToolRun r = run({"-q", in[2], in[0], in[1], "-o", at(name)});
        ASSERT_EQ(r.status, 0) << name << ": " << r.err;
    }
    const std::string png = slurp(at("fused.png")), tif = slurp(at("fused.tif")), jpg = slurp(at("fused.jpg"));
    EXPECT_EQ(png.substr(1, 3), "PNG");
    EXPECT_EQ(tif.substr(0, 2), "II");
    EXPECT_EQ(jpg.substr(0, 2), "\xFF\xD8");
    const Image a = load(at("fused.png")), b = load(at("fused.tif")), c = load(at("fused.jpg"));
    EXPECT_EQ(a.rgb, b.rgb) << "lossless outputs of one fusion must match";
    EXPECT_LT(meanAbsDiff(a.rgb, c.rgb), 2.0);
}

TEST_F(Cli, SixteenBitPngAndTiffKeepSixteenBits) {
    const auto in = writeBracket({"d.png", "b.png"}, {0, 2});
    for (const char *name : {"f16.png", "f16.tif"})
        ASSERT_EQ(run({"--no-preserve-highlights", "--depth", "16", in[0], in[1], "-o", at(name)}).status, 0);
    ASSERT_EQ(run({"--no-preserve-highlights", in[0], in[1], "-o", at("f8.png")}).status, 0);
    int pngDepth = 0, tifDepth = 0;
    const std::vector<uint16_t> png = read16(at("f16.png"), pngDepth), tif = read16(at("f16.tif"), tifDepth);
    ASSERT_EQ(pngDepth, 16);
    ASSERT_EQ(tifDepth, 16);
    EXPECT_EQ(png, tif);
    const Image eight = load(at("f8.png"));
    size_t same = 0, fine = 0;
    for (size_t i = 0; i < png.size(); ++i) {
        same += (png[i] >> 8) == eight.rgb[i];
        fine += (png[i] & 0xFF) != 0;
    }
    EXPECT_GT(same, png.size() * 99 / 100) << "the high byte is the 8-bit result";
    EXPECT_GT(fine, png.size() / 2) << "the low byte carries real precision";
}

TEST_F(Cli, ConvertsSixteenBitGreyPaletteAndAlphaInputsWithOneNoteEach) {
    const int w = 128, h = 96, n = w * h;
    std::vector<unsigned char> rgb16(size_t(n) * 6), greyAlpha(size_t(n) * 2), indexed(n);
    std::vector<png_color> palette;
    for (int r = 0; r < 6; ++r)
        for (int g = 0; g < 6; ++g)
            for (int b = 0; b < 6; ++b)
                palette.push_back({png_byte(r * 51), png_byte(g * 51), png_byte(b * 51)});
    for (int i = 0; i < n; ++i) {
        const unsigned char *d = &bracket_[0].rgb[i * 3], *m = &bracket_[1].rgb[i * 3], *b = &bracket_[2].rgb[i * 3];
        for (int c = 0; c < 3; ++c)
            rgb16[i * 6 + c * 2] = rgb16[i * 6 + c * 2 + 1] = d[c];  // big-endian v * 257
        greyAlpha[i * 2] = (unsigned char)((m[0] * 2 + m[1] * 5 + m[2]) / 8);
        greyAlpha[i * 2 + 1] = 200;
        indexed[i] = (unsigned char)((b[0] + 25) / 51 * 36 + (b[1] + 25) / 51 * 6 + (b[2] + 25) / 51);
    }
    writePng(at("d16.png"), w, h, PNG_COLOR_TYPE_RGB, 16, rgb16);
    writePng(at("mga.png"), w, h, PNG_COLOR_TYPE_GRAY_ALPHA, 8, greyAlpha);
    writePng(at("bpal.png"), w, h, PNG_COLOR_TYPE_PALETTE, 8, indexed, palette);
    const ToolRun r = run({"--no-preserve-highlights", at("d16.png"), at("mga.png"), at("bpal.png"), "-o", at("f.png")});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.lines(), (std::vector<std::string>{
                             "lumora-fuse: " + at("d16.png") + ": 16-bit samples reduced to 8 bits",
                             "lumora-fuse: " + at("mga.png") + ": greyscale expanded to RGB",
                             "lumora-fuse: " + at("mga.png") + ": alpha channel dropped",
                             "lumora-fuse: " + at("bpal.png") + ": palette expanded to RGB"}));
    // 16-bit TIFFs too (the run stops at the size check, after reading).
    std::vector<uint16_t> grey16(n, 40000);
    writeTiff(at("g16.tif"), w, h, 1, 16, COMPRESSION_LZW, grey16.data());
    const ToolRun t = run({at("g16.tif"), at("f.png"), at("d16.png"), "-o", at("g.png")});
    EXPECT_NE(t.err.find("g16.tif: 16-bit samples reduced to 8 bits"), std::string::npos) << t.err;
    EXPECT_NE(t.err.find("g16.tif: greyscale expanded to RGB"), std::string::npos) << t.err;
    Image grey = load(at("g16.tif"));
    EXPECT_EQ(grey.rgb[0], (40000 + 128) / 257) << "rounded to the nearest 8-bit value";
}

TEST_F(Cli, LoupeFusesOnlyItsRegionWithTheWholePicturesRadii) {
    const auto in = writeBracket({"d.png", "m.png", "b.png"});
    ASSERT_EQ(run({in[0], in[1], in[2], "-o", at("full.png")}).status, 0);
    const ToolRun r = run({"--loupe", "40,24,64,48", in[0], in[1], in[2], "-o", at("loupe.png")});
    ASSERT_EQ(r.status, 0) << r.err;
    const Image full = load(at("full.png")), loupe = load(at("loupe.png"));
    ASSERT_EQ(loupe.width, 64);
    ASSERT_EQ(loupe.height, 48);
    const double here = meanAbsDiff(loupe.rgb, crop(full, 40, 24, 64, 48).rgb);
    const double elsewhere = meanAbsDiff(loupe.rgb, crop(full, 0, 0, 64, 48).rgb);
    std::vector<std::string> cropped;
    for (int i = 0; i < 3; ++i) {
        cropped.push_back(at("crop" + std::to_string(i) + ".png"));
        save(cropped.back(), crop(bracket_[i], 40, 24, 64, 48));
    }
    ASSERT_EQ(run({cropped[0], cropped[1], cropped[2], "-o", at("alone.png")}).status, 0);
    const double alone = meanAbsDiff(load(at("alone.png")).rgb, crop(full, 40, 24, 64, 48).rgb);
    EXPECT_LT(here * 3, elsewhere) << "the loupe shows its own region";
    EXPECT_LT(here, alone) << "filtered with the radii of the whole picture, not of the region";
}

TEST_F(Cli, HighlightPreservationDarkensTheHighlights) {
    const auto in = writeBracket({"d.png", "m.png", "b.png"});
    ASSERT_EQ(run({in[0], in[1], in[2], "-o", at("kept.png")}).status, 0);
    ASSERT_EQ(run({"--no-preserve-highlights", in[0], in[1], in[2], "-o", at("plain.png")}).status, 0);
    const Image kept = load(at("kept.png")), plain = load(at("plain.png"));
    double keptSum = 0, plainSum = 0;
    int count = 0;
    for (size_t i = 0; i < plain.rgb.size(); i += 3) {
        const int lum = (plain.rgb[i] + plain.rgb[i + 1] + plain.rgb[i + 2]) / 3;
        if (lum > 230) {
            plainSum += lum;
            keptSum += (kept.rgb[i] + kept.rgb[i + 1] + kept.rgb[i + 2]) / 3;
            ++count;
        }
    }
    ASSERT_GT(count, 50) << "the scene has bright windows";
    EXPECT_LT(keptSum / count, plainSum / count - 5) << "the highlights come from the dark exposure";
}

TEST_F(Cli, ArgumentOrderDoesNotChangeTheOutput) {
    const auto in = writeBracket({"d.png", "m.png", "b.png"});
    ASSERT_EQ(run({in[0], in[1], in[2], "-o", at("dmb.png")}).status, 0);
    ASSERT_EQ(run({in[2], in[0], in[1], "-o", at("bdm.png")}).status, 0);
    EXPECT_EQ(slurp(at("dmb.png")), slurp(at("bdm.png")));
}

// A minimal ICC profile: a header with its own size and the 'acsp' signature, no tags.
Exiv2::DataBuf iccProfile() {
    Exiv2::DataBuf icc(132);
    memset(icc.pData_, 0, icc.size_);
    icc.pData_[3] = 132;
    memcpy(icc.pData_ + 12, "mntrRGB XYZ ", 12);
    memcpy(icc.pData_ + 36, "acsp", 4);
    icc.pData_[8] = 2;
    return icc;
}

TEST_F(Cli, CopiesExifXmpAndIccOfTheMiddleExposure) {
    const auto in = writeBracket({"d.jpg", "m.jpg", "b.jpg"});
    for (int i = 0; i < 3; ++i) {
        auto image = Exiv2::ImageFactory::open(in[i]);
        Exiv2::ExifData exif;
        exif["Exif.Image.Make"] = i == 1 ? "Reference" : "Other";
        exif["Exif.Image.Orientation"] = uint16_t(i == 1 ? 6 : 1);
        exif["Exif.Photo.PixelXDimension"] = uint32_t(999);
        image->setExifData(exif);
        if (i == 1) {
            Exiv2::XmpData xmp;
            xmp["Xmp.dc.title"] = "bracket";
            image->setXmpData(xmp);
            Exiv2::DataBuf icc = iccProfile();
            image->setIccProfile(icc, true);
        }
        image->writeMetadata();
    }
    for (const char *name : {"f.jpg", "f.png", "f.tif"}) {
        SCOPED_TRACE(name);
        const ToolRun r = run({"--no-preserve-highlights", in[2], in[1], in[0], "-o", at(name)});
        ASSERT_EQ(r.status, 0) << r.err;
        auto out = Exiv2::ImageFactory::open(at(name));
        out->readMetadata();
        const Exiv2::ExifData &exif = out->exifData();
        ASSERT_NE(exif.findKey(Exiv2::ExifKey("Exif.Image.Make")), exif.end());
        EXPECT_EQ(exif.findKey(Exiv2::ExifKey("Exif.Image.Make"))->toString(), "Reference");
        EXPECT_EQ(exif.findKey(Exiv2::ExifKey("Exif.Image.Orientation"))->toLong(), 6) << "kept, not applied";
        EXPECT_EQ(exif.findKey(Exiv2::ExifKey("Exif.Photo.PixelXDimension"))->toLong(), 128);
        EXPECT_EQ(out->xmpData()["Xmp.dc.title"].toString(), "lang=\"x-default\" bracket");
        ASSERT_TRUE(out->iccProfileDefined());
        const Exiv2::DataBuf icc = iccProfile();
        ASSERT_EQ(out->iccProfile()->size_, icc.size_);
        EXPECT_EQ(memcmp(out->iccProfile()->pData_, icc.pData_, icc.size_), 0);
        const Image pixels = load(at(name));
        EXPECT_EQ(pixels.width, 128) << "the pixels are not rotated";
    }
}

struct BadCase {
    const char *what;
    std::vector<std::string> args;  // "@name" is a file in the test folder
    int status;
    const char *message;            // part of the first line
};

TEST_F(Cli, RejectsBadInputWithOneClearLineAndWritesNothing) {
    const auto good = writeBracket({"a.png", "b.png", "c.png"});
    save(at("small1.png"), crop(bracket_[0], 0, 0, 8, 8));
    save(at("small2.png"), crop(bracket_[2], 0, 0, 8, 8));
    save(at("other.png"), crop(bracket_[2], 0, 0, 64, 48));
    save(at("whole.jpg"), bracket_[1]);
    save(at("whole.tif"), bracket_[1]);
    const std::string jpg = slurp(at("whole.jpg")), png = slurp(at("a.png")), tif = slurp(at("whole.tif"));
    spill(at("text.png"), "This is not a picture.\n");
    spill(at("empty.jpg"), "");
    spill(at("cut.jpg"), jpg.substr(0, jpg.size() / 2));
    std::string garbled = jpg;
    for (size_t i = garbled.size() / 3; i < garbled.size() / 3 + 64; ++i)
        garbled[i] = char(0xFF - i % 7);
    spill(at("garbled.jpg"), garbled);
    spill(at("cut.png"), png.substr(0, png.size() / 2));
    std::string badCrc = png;
    badCrc[png.find("IDAT") + 40] ^= 0x5A;
    spill(at("crc.png"), badCrc);
    spill(at("cut.tif"), tif.substr(0, tif.size() / 2));
    spill(at("header.tif"), std::string("II*\0\x08\0\0\0", 8) + std::string(100, '\xAB'));
    fs::create_directory(at("folder.png"));
    const std::set<std::string> before = listing();

    const std::vector<BadCase> cases = {
        {"missing file", {"@a.png", "@missing.png", "-o", "@f.jpg"}, 1, "missing.png: No such file or directory"},
        {"not an image", {"@a.png", "@text.png", "-o", "@f.jpg"}, 1, "text.png: not a JPEG, PNG or TIFF image"},
        {"empty file", {"@empty.jpg", "@a.png", "-o", "@f.jpg"}, 1, "empty.jpg: empty file, not an image"},
        {"a folder", {"@a.png", "@folder.png", "-o", "@f.jpg"}, 1, "folder.png: is a directory"},
        {"truncated JPEG", {"@a.png", "@cut.jpg", "-o", "@f.jpg"}, 1, "cut.jpg: truncated JPEG file"},
        {"corrupt JPEG", {"@a.png", "@garbled.jpg", "-o", "@f.jpg"}, 1, "garbled.jpg: corrupt JPEG data"},
        {"truncated PNG", {"@a.png", "@cut.png", "-o", "@f.jpg"}, 1, "cut.png: truncated PNG file"},
        {"corrupt PNG", {"@a.png", "@crc.png", "-o", "@f.jpg"}, 1, "crc.png: corrupt PNG data: IDAT"},
        {"truncated TIFF", {"@a.png", "@cut.tif", "-o", "@f.jpg"}, 1, "cut.tif: truncated TIFF file"},
        {"corrupt TIFF", {"@a.png", "@header.tif", "-o", "@f.jpg"}, 1, "header.tif: corrupt TIFF file"},
        {"sizes differ", {"@a.png", "@other.png", "-o", "@f.jpg"}, 1, "other.png: size 64x48 differs from " },
        {"too small", {"@small1.png", "@small2.png", "-o", "@f.jpg"}, 1, "small1.png: image too small: 8x8 (the fusion needs at least 32x32 pixels"},
        {"one image", {"@a.png", "-o", "@f.jpg"}, 2, "expected 2 or 3 images, got 1"},
        {"four images", {"@a.png", "@b.png", "@c.png", "@a.png", "-o", "@f.jpg"}, 2, "expected 2 or 3 images, got 4"},
        {"no output", {"@a.png", "@b.png"}, 2, "no output file"},
        {"unwritable output", {"@a.png", "@b.png", "-o", "@nofolder/f.jpg"}, 1, "nofolder/f.jpg: cannot write the output: No such file or directory"},
        {"output is an input", {"@a.png", "@b.png", "-o", "@b.png"}, 2, "b.png: is one of the input images"},
        {"output format", {"@a.png", "@b.png", "-o", "@f.bmp"}, 2, "f.bmp: unknown output format"},
        {"16-bit JPEG", {"--depth", "16", "@a.png", "@b.png", "-o", "@f.jpg"}, 2, "JPEG holds 8-bit samples only"},
        {"depth", {"--depth", "12", "@a.png", "@b.png", "-o", "@f.png"}, 2, "--depth: '12' is not valid (8 or 16)"},
        {"quality", {"--quality", "101", "@a.png", "@b.png", "-o", "@f.jpg"}, 2, "--quality: '101' is not valid (a whole number from 1 to 100)"},
        {"threads", {"--threads", "0", "@a.png", "@b.png", "-o", "@f.jpg"}, 2, "--threads: '0' is not valid"},
        {"loupe syntax", {"--loupe", "1,2,3", "@a.png", "@b.png", "-o", "@f.jpg"}, 2, "--loupe: '1,2,3' is not X,Y,W,H"},
        {"loupe outside", {"--loupe", "100,0,64,48", "@a.png", "@b.png", "-o", "@f.jpg"}, 2, "does not fit in the 128x96 picture"},
        {"loupe too small", {"--loupe", "0,0,8,8", "@a.png", "@b.png", "-o", "@f.jpg"}, 2, "--loupe: region 8x8 too small"},
        {"unknown option", {"--frobnicate", "@a.png", "@b.png", "-o", "@f.jpg"}, 2, "--frobnicate"},
        {"not a number", {"--strength", "lots", "@a.png", "@b.png", "-o", "@f.jpg"}, 2, "--strength: 'lots' is not a number"},
        {"not a number (nan)", {"--range-sigma", "nan", "@a.png", "@b.png", "-o", "@f.jpg"}, 2, "--range-sigma: 'nan' is not a number"},
        {"not whole", {"--start-radius", "2.5", "@a.png", "@b.png", "-o", "@f.jpg"}, 2, "--start-radius: '2.5' is not a whole number"},
    };
    for (const BadCase &c : cases) {
        SCOPED_TRACE(c.what);
        std::vector<std::string> args;
        for (const std::string &a : c.args)
            args.push_back(a[0] == '@' ? at(a.substr(1)) : a);
        const ToolRun r = run(args);
        EXPECT_EQ(r.status, c.status) << r.err;
        const auto lines = r.lines();
        ASSERT_FALSE(lines.empty());
        EXPECT_EQ(lines[0].rfind("lumora-fuse: ", 0), 0u) << lines[0];
        EXPECT_NE(lines[0].find(c.message), std::string::npos) << lines[0];
        EXPECT_EQ(lines.size(), c.status == 2 ? 2u : 1u) << r.err;
        EXPECT_EQ(listing(), before) << "nothing written, no temporary file left";
    }
    EXPECT_EQ(slurp(at("b.png")), slurp(good[1]));
    // The in-memory reader (for fuzzing) agrees with the file reader.
    for (const char *name : {"whole.jpg", "whole.tif", "a.png", "cut.jpg", "garbled.jpg", "crc.png", "cut.tif", "header.tif"}) {
        Image fromFile, fromMemory;
        std::string fileError, memoryError;
        const std::string bytes = slurp(at(name));
        EXPECT_EQ(readImage(at(name), fromFile, fileError),
                  readImageMemory(reinterpret_cast<const unsigned char *>(bytes.data()), bytes.size(), fromMemory, memoryError))
            << name;
        EXPECT_EQ(fileError, memoryError) << name;
        EXPECT_EQ(fromFile.rgb, fromMemory.rgb) << name;
    }
}

TEST_F(Cli, RefusesEveryFusionParameterOutsideItsRange) {
    const auto in = writeBracket({"a.png", "b.png"}, {0, 2});
    const ToolRun help = run({"--help"});
    ASSERT_EQ(help.status, 0);
    const std::vector<std::pair<std::string, std::vector<std::string>>> bad = {
        {"--strength", {"-1", "101", "1e9"}},
        {"--sharpness", {"-0.5", "21"}},
        {"--saturation", {"-10", "10.5"}},
        {"--start-radius", {"0", "21"}},
        {"--radius-growth", {"0", "-5", "51"}},
        {"--spatial-sigma", {"0", "-0.2", "11"}},
        {"--range-sigma", {"0", "-0.2", "11"}},
        {"--highlight-influence", {"-1", "10.5"}},
    };
    for (const auto &[option, values] : bad) {
        for (const std::string &value : values) {
            SCOPED_TRACE(option + " " + value);
            const ToolRun r = run({option + "=" + value, in[0], in[1], "-o", at("f.jpg")});
            EXPECT_EQ(r.status, 2);
            EXPECT_EQ(r.err.rfind("lumora-fuse: " + option + ": " + value + " is out of range (valid: ", 0), 0u) << r.err;
        }
        EXPECT_NE(help.out.find("--" + option.substr(2) + "="), std::string::npos) << "documented in --help";
    }
    const ToolRun both = run({"--strength", "20", "--highlight-influence", "9.5", in[0], in[1], "-o", at("f.jpg")});
    EXPECT_EQ(both.status, 2);
    EXPECT_NE(both.err.find("--strength 20: above 19 only with --highlight-influence 10"), std::string::npos) << both.err;
    EXPECT_FALSE(fs::exists(at("f.jpg")));
}

TEST_F(Cli, FusesAtTheEdgesOfEveryValidRange) {
    const auto in = writeBracket({"d.png", "m.png", "b.png"});
    const std::vector<std::vector<std::string>> edges = {
        {"--strength=100", "--sharpness=20", "--saturation=10", "--start-radius=20", "--radius-growth=50",
         "--spatial-sigma=10", "--range-sigma=0.01", "--highlight-influence=10"},
        {"--strength=19", "--sharpness=0", "--saturation=-9.99", "--start-radius=1", "--radius-growth=0.01",
         "--spatial-sigma=0.01", "--range-sigma=10", "--highlight-influence=0"},
        {"--strength=100", "--highlight-influence=0", "--no-preserve-highlights"},
    };
    for (std::vector<std::string> args : edges) {
        args.insert(args.end(), {in[2], in[0], in[1], "-o", at("f.png")});
        const ToolRun r = run(args);
        EXPECT_EQ(r.status, 0) << args[0] << ": " << r.err;
        EXPECT_EQ(load(at("f.png")).width, 128);
    }
}

TEST_F(Cli, HelpAndVersionFollowGnuConventions) {
    const ToolRun help = run({"--help"});
    EXPECT_EQ(help.status, 0);
    EXPECT_EQ(help.err, "");
    EXPECT_EQ(help.out.rfind("Usage: lumora-fuse [OPTION]... IMAGE IMAGE [IMAGE] -o OUTPUT\n", 0), 0u);
    std::string flat;  // the help text with its line breaks and indents folded
    for (char c : help.out)
        if (!(c == ' ' || c == '\n') || (!flat.empty() && flat.back() != ' '))
            flat += c == '\n' ? ' ' : c;
    for (const char *text : {"(0 to 100, default 15; above 19 only with --highlight-influence 10",
                             "(0 to 10, default 10)", "(above -10 up to 10, default 0)", "(0.01 to 10, default 0.2)",
                             "--no-preserve-highlights", "--loupe=X,Y,W,H", "--threads=N",
                             "-h, --help display this help and exit", "at least 32x32 pixels"})
        EXPECT_NE(flat.find(text), std::string::npos) << text;
    const ToolRun version = run({"-V"});
    EXPECT_EQ(version.status, 0);
    EXPECT_EQ(version.out.rfind("lumora-fuse (Lumora Fusion) ", 0), 0u) << version.out;
}

TEST_F(Cli, SigintCancelsWithoutLeavingAnyFile) {
    const pid_t pid = startLargeFusion();
    const auto sent = std::chrono::steady_clock::now();
    kill(pid, SIGINT);
    const ToolRun r = finish(pid);
    EXPECT_EQ(r.status, 130) << r.err;
    EXPECT_NE(r.err.find("lumora-fuse: cancelled; nothing written"), std::string::npos);
    EXPECT_EQ(listing(), largeInputs_) << "no output and no temporary file";
    EXPECT_LT(std::chrono::steady_clock::now() - sent, std::chrono::seconds(60));
}

TEST_F(Cli, ALibraryThatDiesIsReportedInOneLineAndLeavesNoFile) {
    const pid_t pid = startLargeFusion();
    // The library runs in a process of the tool's own; make it die as an assertion would.
    std::istringstream children(slurp("/proc/" + std::to_string(pid) + "/task/" + std::to_string(pid) + "/children"));
    pid_t child = 0;
    ASSERT_TRUE(children >> child) << "the fusion runs in a child process";
    kill(child, SIGABRT);
    const ToolRun r = finish(pid);
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.err.find("lumora-fuse: the fusion failed with these exposures and settings: the library stopped"),
              std::string::npos) << r.err;
    EXPECT_EQ(listing(), largeInputs_);
}

}  // namespace
