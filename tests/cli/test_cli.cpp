// test_cli.cpp: lumora-fuse run as a user runs it, on files made here from
// the shipped sample bracket, with its outputs read back by the image
// libraries.
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>

#include <chrono>
#include <cstring>
#include <filesystem>
#include <regex>
#include <sstream>
#include <thread>

#include <exiv2/exiv2.hpp>
#include <zlib.h>

#include "cli_support.h"
#include "options.h"

namespace fs = std::filesystem;
using namespace lumora_fuse;
using namespace lumora_cli;

namespace {

// A minimal ICC profile: a header with its own size and the 'acsp' signature, no tags.
const std::string kIcc = std::string("\0\0\0\x84\0\0\0\0\x02\0\0\0mntrRGB XYZ ", 24) + std::string(12, '\0') +
                         "acsp" + std::string(92, '\0');

// Every fusion parameter with values just outside its range.
const std::vector<std::pair<std::string, std::vector<std::string>>> kOutOfRange = {
    {"--strength", {"-1", "101", "1e9"}}, {"--sharpness", {"-0.5", "21"}}, {"--saturation", {"-10", "10.5"}},
    {"--start-radius", {"0", "21"}}, {"--radius-growth", {"0", "-5", "51"}}, {"--spatial-sigma", {"0", "-0.2", "11"}},
    {"--range-sigma", {"0", "-0.2", "11"}}, {"--highlight-influence", {"-1", "10.5"}}};

// Metadata written into an image file: {key, value} with rationals as "n/d", and an ICC profile.
void tag(const std::string &path, const std::vector<std::pair<std::string, std::string>> &tags,
         const std::string &icc = "") {
    auto image = Exiv2::ImageFactory::open(path);
    image->readMetadata();
    for (const auto &[key, value] : tags)
        if (key.rfind("Xmp.", 0) == 0)
            image->xmpData()[key] = value;
        else
            image->exifData()[key] = value;
    Exiv2::DataBuf profile(reinterpret_cast<const Exiv2::byte *>(icc.data()), long(icc.size()));
    if (!icc.empty()) image->setIccProfile(profile, true);
    image->writeMetadata();
}

// v as a big-endian number of n bytes at offset at.
void putBig(std::string &bytes, size_t at, uint32_t v, int n) {
    for (int i = 0; i < n; ++i) bytes[at + i] = char(v >> (8 * (n - 1 - i)));
}

// A PNG whose header (IHDR, its checksum redone) claims w x h pixels.
std::string claimingPng(std::string png, uint32_t w, uint32_t h) {
    putBig(png, 16, w, 4);
    putBig(png, 20, h, 4);
    putBig(png, 29, uint32_t(crc32(0, reinterpret_cast<const Bytef *>(png.data()) + 12, 17)), 4);
    return png;
}

#if defined(__SANITIZE_ADDRESS__)
// The address sanitizer reserves terabytes of shadow memory, so a tool built with it cannot run
// under an address-space limit: there the memory-at-hand refusal is not checked, and nothing is limited.
constexpr bool kAddressSanitizer = true;
#else
constexpr bool kAddressSanitizer = false;
#endif

class Cli : public ToolTest {
protected:
    static void SetUpTestSuite() {
        for (int i = 0; i < 3; ++i) bracket_[i] = scaled(sample(i), 128, 96);
    }
    // The three exposures written as files, e.g. {"d.png", "m.jpg", "b.tif"}, darkest first.
    void writeBracket(const std::vector<std::string> &names) {
        for (int i = 0; i < 3; ++i) save(at(names[i]), bracket_[i]);
    }
    // Starts a fusion of a 2048x1536 bracket (seconds per pyramid run); returns once the library is at work.
    pid_t startLargeFusion() {
        for (int i = 0; i < 3; ++i) save(at("big" + std::to_string(i) + ".jpg"), scaled(sample(i), 2048, 1536), 90);
        largeInputs_ = listing();
        const pid_t pid = start("--verbose @big1.jpg @big0.jpg @big2.jpg -o @fused.png");
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(120);
        while (slurp(errPath_).find("REAL-FILTER") == std::string::npos && std::chrono::steady_clock::now() < deadline)
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        EXPECT_NE(slurp(errPath_).find("REAL-FILTER"), std::string::npos) << "the fusion never started";
        return pid;
    }
    static Image bracket_[3];
    std::set<std::string> largeInputs_;
};
Image Cli::bracket_[3];

TEST_F(Cli, FusesTwoOrThreeExposuresOfEveryFormatIntoEveryFormatWhateverTheOrder) {
    writeBracket({"d.jpg", "m.tif", "b.png"});
    const ToolRun two = run("@d.jpg @b.png -o @two.jpg");
    EXPECT_EQ(two.status, 0);
    EXPECT_EQ(two.err, "") << "the library's commentary must not reach a normal run";
    EXPECT_EQ(load(at("two.jpg")).height, 96);
    EXPECT_EQ(listing(), (std::set<std::string>{"d.jpg", "m.tif", "b.png", "two.jpg"}));
    for (const std::string name : {"f.png", "f.tif", "f.jpg"})
        ASSERT_EQ(run("-q @b.png @d.jpg @m.tif -o @" + name).status, 0) << name;
    ASSERT_EQ(run("@d.jpg @m.tif @b.png -o @dmb.png").status, 0);
    EXPECT_EQ(slurp(at("f.png")), slurp(at("dmb.png"))) << "argument order does not change the output";
    EXPECT_EQ(slurp(at("f.png")).substr(1, 3) + slurp(at("f.tif")).substr(0, 2) + slurp(at("f.jpg")).substr(0, 2),
              "PNGII\xFF\xD8") << "each file in the format its name asks for";
    const Image fused = load(at("f.png"));
    EXPECT_EQ(fused.rgb, load(at("f.tif")).rgb) << "lossless outputs of one fusion match";
    // JPEG's chroma subsampling costs the default look's stronger colour edges about 2 levels.
    EXPECT_LT(meanAbsDiff(fused.rgb, load(at("f.jpg")).rgb), 3.0) << "the JPEG is the same picture";
}

TEST_F(Cli, SixteenBitOutputsKeepTheirPrecisionInputsAreConvertedWithANoteAndHighlightsDarken) {
    writeBracket({"d.png", "m.png", "b.png"});
    ASSERT_EQ(run("--preserve-highlights @d.png @m.png @b.png -o @kept.png").status, 0);
    for (const std::string name : {"f16.png", "f16.tif", "plain.png"})
        ASSERT_EQ(run("--no-preserve-highlights --depth " + std::string(name[1] == '1' ? "16" : "8") +
                      " @d.png @m.png @b.png -o @" + name).status, 0) << name;
    // Read back as stored, native-endian: libpng leaves 16-bit samples without a gamma chunk as they are.
    png_image deep{};
    deep.version = PNG_IMAGE_VERSION;
    ASSERT_TRUE(png_image_begin_read_from_file(&deep, at("f16.png").c_str()));
    ASSERT_TRUE(deep.format & PNG_FORMAT_FLAG_LINEAR && deep.width == 128 && deep.height == 96) << "16-bit samples";
    deep.format = PNG_FORMAT_LINEAR_RGB;
    std::vector<uint16_t> png(128 * 96 * 3);
    ASSERT_TRUE(png_image_finish_read(&deep, nullptr, png.data(), 0, nullptr)) << deep.message;
    Image tiff;  // read by the tool, rounded to 8 bits
    std::vector<std::string> notes;
    std::string error;
    ASSERT_TRUE(readImage(at("f16.tif"), tiff, error, &notes)) << error;
    EXPECT_EQ(notes, std::vector<std::string>{"16-bit samples reduced to 8 bits"});
    const Image plain = load(at("plain.png")), kept = load(at("kept.png"));
    size_t same = 0, fine = 0, rounded = 0;
    for (size_t i = 0; i < png.size(); ++i) {
        same += (png[i] >> 8) == plain.rgb[i], fine += (png[i] & 0xFF) != 0;
        rounded += tiff.rgb[i] == (png[i] + 128) / 257;
    }
    EXPECT_GT(same, png.size() * 99 / 100) << "the high byte is the 8-bit result";
    EXPECT_GT(fine, png.size() / 2) << "the low byte carries real precision";
    EXPECT_EQ(rounded, png.size()) << "the TIFF holds the PNG's samples, read back at the nearest 8-bit value";
    auto lum = [](const Image &image, size_t i) { return (image.rgb[i] + image.rgb[i + 1] + image.rgb[i + 2]) / 3; };
    double keptSum = 0, plainSum = 0, count = 0;
    for (size_t i = 0; i < plain.rgb.size(); i += 3)
        if (lum(plain, i) > 230) plainSum += lum(plain, i), keptSum += lum(kept, i), ++count;
    ASSERT_GT(count, 50) << "the scene has bright windows";
    EXPECT_LT(keptSum / count, plainSum / count - 5) << "the highlights come from the dark exposure";

    std::vector<unsigned char> greyAlpha(128 * 96 * 2, 200), indexed(128 * 96, 1);
    writePng(at("ga.png"), 128, 96, PNG_FORMAT_GA, greyAlpha.data());
    writePng(at("pal.png"), 128, 96, PNG_FORMAT_RGB_COLORMAP, indexed.data(), {{0, 0, 0}, {90, 140, 200}});
    const ToolRun r = run("--no-preserve-highlights @f16.png @ga.png @pal.png -o @f.png");
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.err, expand("lumora-fuse: @f16.png: 16-bit samples reduced to 8 bits\n"
                            "lumora-fuse: @ga.png: greyscale expanded to RGB\n"
                            "lumora-fuse: @ga.png: alpha channel dropped\n"
                            "lumora-fuse: @pal.png: palette expanded to RGB\n"));
}

// With the library's spatial sigma: the natural look's wider filter reaches
// far past the region, whose fusion then differs from the whole one's there.
TEST_F(Cli, LoupeFusesOnlyItsRegionWithTheWholePicturesRadii) {
    writeBracket({"d.png", "m.png", "b.png"});
    for (int i = 0; i < 3; ++i) save(at("crop" + std::to_string(i) + ".png"), crop(bracket_[i], 40, 24, 64, 48));
    ASSERT_EQ(run("--look library @d.png @m.png @b.png -o @full.png").status, 0);
    ASSERT_EQ(run("--look library @crop0.png @crop1.png @crop2.png -o @alone.png").status, 0);
    const ToolRun r = run("--look library --loupe 40,24,64,48 @d.png @m.png @b.png -o @loupe.png");
    ASSERT_EQ(r.status, 0) << r.err;
    const Image full = load(at("full.png")), loupe = load(at("loupe.png"));
    ASSERT_EQ(std::make_pair(loupe.width, loupe.height), std::make_pair(64, 48));
    const double here = meanAbsDiff(loupe.rgb, crop(full, 40, 24, 64, 48).rgb);
    EXPECT_LT(here * 3, meanAbsDiff(loupe.rgb, crop(full, 0, 0, 64, 48).rgb)) << "the loupe shows its own region";
    EXPECT_LT(here, meanAbsDiff(load(at("alone.png")).rgb, crop(full, 40, 24, 64, 48).rgb))
        << "filtered with the radii of the whole picture, not of the region";
}

TEST_F(Cli, CopiesExifXmpAndIccOfTheMiddleExposure) {
    writeBracket({"d.jpg", "m.jpg", "b.jpg"});
    for (const char *name : {"d.jpg", "b.jpg"}) tag(at(name), {{"Exif.Image.Make", "Other"}});
    tag(at("m.jpg"),
        {{"Exif.Image.Make", "Reference"}, {"Exif.Image.Orientation", "6"}, {"Exif.Photo.PixelXDimension", "999"},
         {"Xmp.dc.title", "bracket"}},
        kIcc);
    for (const std::string name : {"f.jpg", "f.png", "f.tif"}) {
        SCOPED_TRACE(name);
        ASSERT_EQ(run("--no-preserve-highlights @b.jpg @m.jpg @d.jpg -o @" + name).status, 0);
        auto out = Exiv2::ImageFactory::open(at(name));
        out->readMetadata();
        const Exiv2::ExifData &exif = out->exifData();
        // The orientation is kept, not applied; the pixel count is the output's.
        for (auto [key, want] : {std::pair<const char *, const char *>{"Exif.Image.Make", "Reference"},
                                 {"Exif.Image.Orientation", "6"}, {"Exif.Photo.PixelXDimension", "128"}}) {
            const auto it = exif.findKey(Exiv2::ExifKey(key));
            EXPECT_EQ(it == exif.end() ? "missing" : it->toString(), want) << key;
        }
        EXPECT_EQ(out->xmpData()["Xmp.dc.title"].toString(), "lang=\"x-default\" bracket");
        ASSERT_TRUE(out->iccProfileDefined());
        EXPECT_EQ(std::string((const char *)out->iccProfile()->pData_, out->iccProfile()->size_), kIcc);
        EXPECT_EQ(load(at(name)).width, 128) << "the pixels are not rotated";
    }
    ASSERT_EQ(run("--metadata-from @d.jpg @b.jpg @m.jpg -o @other.jpg").status, 0);
    auto other = Exiv2::ImageFactory::open(at("other.jpg"));
    other->readMetadata();
    EXPECT_EQ(other->exifData()["Exif.Image.Make"].toString(), "Other") << "--metadata-from chooses the source";
}

// Every refusal, and every failed write, in one line that names the file; nothing is left behind, and the
// headers of huge pictures are refused before their pixels are allocated.
TEST_F(Cli, RejectsBadInputOptionsHugePicturesAndFailedWritesWithOneClearLineAndWritesNothing) {
    writeBracket({"a.png", "b.png", "c.png"});
    for (const auto &[name, image] : {std::pair<const char *, Image>{"other.png", crop(bracket_[2], 0, 0, 64, 48)},
                                      {"whole.jpg", bracket_[1]}, {"whole.tif", bracket_[1]},
                                      // three corners: no frame shows what another shows
                                      {"n0.png", crop(bracket_[1], 0, 0, 64, 48)},
                                      {"n1.png", crop(bracket_[1], 64, 48, 64, 48)},
                                      {"n2.png", crop(bracket_[1], 0, 48, 64, 48)}})
        save(at(name), image);
    const std::string jpg = slurp(at("whole.jpg")), png = slurp(at("a.png")), tif = slurp(at("whole.tif")),
                      input = slurp(at("b.png"));
    std::string garbled = jpg, badCrc = png, huge = jpg;
    for (size_t i = garbled.size() / 3; i < garbled.size() / 3 + 64; ++i) garbled[i] = char(0xFF - i % 7);
    badCrc[png.find("IDAT") + 40] ^= 0x5A;
    const size_t frame = huge.find("\xFF\xC0");  // baseline frame header: FF C0, length, precision, height, width
    putBig(huge, frame + 5, 60000, 2);
    putBig(huge, frame + 7, 60000, 2);
    const std::pair<const char *, std::string> files[] = {
        {"text.png", "This is not a picture.\n"}, {"empty.jpg", ""}, {"cut.jpg", jpg.substr(0, jpg.size() / 2)},
        {"garbled.jpg", garbled}, {"cut.png", png.substr(0, png.size() / 2)}, {"crc.png", badCrc},
        {"cut.tif", tif.substr(0, tif.size() / 2)},
        {"header.tif", std::string("II*\0\x08\0\0\0", 8) + std::string(100, '\xAB')}, {"huge.jpg", huge},
        {"huge.png", claimingPng(png, 60000, 60000)}};
    for (const auto &[name, bytes] : files) spill(at(name), bytes);
    writeTiff(at("huge.tif"), 60000, 60000);
    writeTiff(at("big.tif"), 8000, 6000);
    fs::create_directory(at("folder.png"));
    spill(at("locked.png"), png);
    fs::permissions(at("locked.png"), fs::perms::owner_read | fs::perms::group_read | fs::perms::others_read);
    const std::set<std::string> before = listing();

    const Launch capped{.resource = RLIMIT_AS, .limit = kAddressSanitizer ? RLIM_INFINITY : 1L << 30};
    const Launch fsize{.resource = RLIMIT_FSIZE, .limit = 2048};
    struct Case {
        std::string line;
        int status;
        std::string message;  // part of the first line
        Launch how = {};      // else under the address-space limit
    };
    std::vector<Case> cases = {
        {"@a.png @missing.png -o @f.jpg", 1, "@missing.png: No such file or directory"},
        {"@a.png @text.png -o @f.jpg", 1, "@text.png: not a JPEG, PNG or TIFF image"},
        {"@empty.jpg @a.png -o @f.jpg", 1, "@empty.jpg: empty file, not an image"},
        {"@a.png @folder.png -o @f.jpg", 1, "@folder.png: is a directory"},
        {"@a.png @cut.jpg -o @f.jpg", 1, "@cut.jpg: truncated JPEG file"},
        {"@a.png @garbled.jpg -o @f.jpg", 1, "@garbled.jpg: corrupt JPEG data"},
        {"@a.png @cut.png -o @f.jpg", 1, "@cut.png: truncated PNG file"},
        {"@a.png @crc.png -o @f.jpg", 1, "@crc.png: corrupt PNG data: IDAT"},
        {"@a.png @cut.tif -o @f.jpg", 1, "@cut.tif: truncated TIFF file"},
        {"@a.png @header.tif -o @f.jpg", 1, "@header.tif: corrupt TIFF file"},
        {"@a.png @other.png -o @f.jpg", 1, "@other.png: size 64x48 differs from @a.png (128x96)"},
        {"@a.png -o @f.jpg", 2, "expected 2 or more images, got 1"},
        {"@a.png @b.png @c.png @other.png -o @f.jpg", 1, "@other.png: size 64x48 differs from @a.png (128x96)"},
        {"--frames @a.png,@c.png @a.png @b.png -o @f.jpg", 2, "--frames: @c.png is not one of the frames given"},
        {"%@missing.args -o @f.jpg", 2, "@missing.args: cannot read the arguments: No such file or directory"},
        {"--metadata-from @missing.jpg @a.png @b.png -o @f.jpg", 1, "@missing.jpg: cannot read the metadata"},
        {"--group 3 @a.png @b.png -o @f.jpg", 2, "--group: only with --batch"},
        {"--batch --format gif @a.png -o @out", 2, "--format: 'gif' is not valid (jpg, png or tif)"},
        {"@a.png @b.png", 2, "no output file"},
        {"@a.png @b.png -o @nofolder/f.jpg", 1, "@nofolder/f.jpg: cannot write the output: No such file or directory"},
        {"@a.png @b.png -o @b.png", 2, "@b.png: is one of the input images"},
        {"@a.png @b.png -o @locked.png", 1, "@locked.png: is write-protected; not replacing it"},
        {"@a.png @b.png -o @f.bmp", 2, "@f.bmp: unknown output format"},
        {"--depth 16 @a.png @b.png -o @f.jpg", 2, "JPEG holds 8-bit samples only"},
        {"--depth 12 @a.png @b.png -o @f.png", 2, "--depth: '12' is not valid (8 or 16)"},
        {"--quality 101 @a.png @b.png -o @f.jpg", 2, "--quality: '101' is not valid (a whole number from 1 to 100)"},
        {"--threads 0 @a.png @b.png -o @f.jpg", 2, "--threads: '0' is not valid"},
        {"--device gpu @a.png @b.png -o @f.jpg", 2, "--device: 'gpu' is not valid (auto, cpu, opencl or opencl:N)"},
        {"--loupe 1,2,3 @a.png @b.png -o @f.jpg", 2, "--loupe: '1,2,3' is not X,Y,W,H"},
        {"--loupe 100,0,64,48 @a.png @b.png -o @f.jpg", 2, "does not fit in the 128x96 picture"},
        {"--frobnicate @a.png @b.png -o @f.jpg", 2, "--frobnicate"},
        {"-q -v @a.png @b.png -o @f.jpg", 2, "--quiet and --verbose exclude each other"},
        {"--strength lots @a.png @b.png -o @f.jpg", 2, "--strength: 'lots' is not a number"},
        {"--range-sigma nan @a.png @b.png -o @f.jpg", 2, "--range-sigma: 'nan' is not a number"},
        {"--start-radius 2.5 @a.png @b.png -o @f.jpg", 2, "--start-radius: '2.5' is not a whole number"},
        {"--look library --strength 20 --highlight-influence 9.5 @a.png @b.png -o @f.jpg", 2,
         "--strength 20: above 19 only with --highlight-influence 10"},
        {"--look vivid @a.png @b.png -o @f.jpg", 2, "--look: 'vivid' is not valid (natural, detail or library)"},
        {"--preserve-highlights --highlight-influence 5 @a.png @b.png -o @f.jpg", 2,
         "--strength 37.5 (look natural): above 19 only with --highlight-influence 10"},
        {"--align @n0.png @n1.png @n2.png -o @f.jpg", 1, ": cannot align to @n"},
        {"--deghost --deghost-ref @c.png @a.png @b.png -o @f.jpg", 2,
         "--deghost-ref: '@c.png' is not one of the frames fused (@a.png, @b.png)"},
        {"--deghost --deghost-masks @locked.png/masks @a.png @b.png -o @f.jpg", 1,
         "@locked.png/masks: cannot write the masks: Not a directory"},
        {"--deghost-masks @masks @a.png @b.png -o @f.jpg", 2, "--deghost-masks: only with --deghost"},
        {"@a.png @b.png -o @f.jpg", 1, "@f.jpg: cannot write the output: File too large", fsize},
        {"@a.png @b.png -o @f.png", 1, "@f.png: cannot write the output: File too large", fsize},
        {"@a.png @b.png -o @f.tif", 1, "@f.tif: cannot write the output: File too large", fsize},
        {"@big.tif @big.tif -o @f.png", 1,
         "@big.tif: image too large for the memory at hand: 8000x6000 pixels; fusing 2 such exposures needs about "
         "2.8 GiB, more than the 1.0 GiB address-space limit of the process",
         {.resource = RLIMIT_AS, .limit = 1L << 30}},
    };
    for (const std::string name : {"huge.jpg", "huge.png", "huge.tif"})
        cases.push_back({"@" + name + " @" + name + " -o @f.png", 1,
                         "@" + name + ": image too large: 60000x60000 pixels (at most 100 megapixels)"});
    for (const auto &[option, values] : kOutOfRange)
        for (const std::string &value : values)
            cases.push_back({option + "=" + value + " @a.png @b.png -o @f.jpg", 2,
                             "lumora-fuse: " + option + ": " + value + " is out of range (valid: "});
    for (const Case &c : cases) {
        SCOPED_TRACE(c.line);
        // A tool built with the address sanitizer, whose shadow memory takes terabytes, cannot run under the limit.
        if (kAddressSanitizer && c.how.resource == RLIMIT_AS) continue;
        long rss = 0;
        const ToolRun r = run(c.line, c.how.resource >= 0 ? c.how : capped, &rss);
        EXPECT_EQ(r.status, c.status) << r.err;
        const std::string first = r.err.substr(0, r.err.find('\n'));
        EXPECT_EQ(first.rfind("lumora-fuse: ", 0), 0u) << r.err;
        EXPECT_NE(first.find(expand(c.message)), std::string::npos) << r.err;
        EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), c.status == 2 ? 2 : 1) << "plus a hint on usage";
        EXPECT_EQ(listing(), before) << "nothing written, no temporary file left";
        if (c.how.resource != RLIMIT_FSIZE) {  // refused before a fusion, or any pixel of a huge picture, is begun
            EXPECT_LT(rss, kAddressSanitizer ? 1L << 30 : 64 * 1024) << "KiB";
        }
    }
    EXPECT_EQ(slurp(at("b.png")), input) << "an input named as the output is left alone";
    EXPECT_EQ(slurp(at("locked.png")), png) << "so is a write-protected file";
    EXPECT_EQ(run("-q @a.png @b.png @c.png -o @f.png", capped).status, 0) << "a small bracket fuses under the limit";
}

TEST_F(Cli, OfManyFramesFusesTheDarkestTheBrightestAndTheNormalOneOrThoseNamed) {
    // The pick by recorded exposure is checked on the function (ToolParts).
    // Nine flat 64x48 frames, named out of brightness order, at mean levels around mid-grey (e: 118).
    for (const auto &[name, level] : std::vector<std::pair<std::string, int>>{
             {"a", 30}, {"b", 60}, {"c", 85}, {"d", 100}, {"e", 118}, {"f", 136}, {"g", 150}, {"h", 165}, {"i", 200}})
        save(at(name + ".png"), Image{64, 48, std::vector<unsigned char>(64 * 48 * 3, (unsigned char)level)});
    const std::string all = "@e.png @b.png @i.png @c.png @a.png @g.png @d.png @h.png @f.png";
    spill(at("args"), std::regex_replace(expand(all), std::regex(" "), "\n\n"));  // one a line, blank lines between

    ToolRun r = run("%@args -o @by-brightness.png");
    EXPECT_EQ(r.status, 0) << "the frames read from an argument file";
    EXPECT_EQ(r.err, "lumora-fuse: 9 frames; fusing a.png (darkest), e.png (normal), i.png (brightest) by mean "
                     "brightness\n");
    ASSERT_EQ(run("-q @i.png @a.png @e.png -o @three.png").status, 0);
    EXPECT_TRUE(slurp(at("by-brightness.png")) == slurp(at("three.png"))) << "those three fused, nothing else";

    r = run("--frames @c.png,@./f.png " + all + " -o @named.png");
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.err, "lumora-fuse: 9 frames; fusing c.png, f.png as named by --frames\n") << "by name or another path";
    ASSERT_EQ(run("-q @f.png @c.png -o @two.png").status, 0);
    EXPECT_TRUE(slurp(at("named.png")) == slurp(at("two.png")));
}

TEST_F(Cli, BatchFusesEveryBracketOfAFolderReportsFailuresAndResumes) {
    // Three brackets of 64x48 frames, one second apart: the second starts where an exposure bias
    // repeats, the third (biases one stop up, none repeated) after a minute. Plus a file that is
    // no picture.
    fs::create_directory(at("in"));
    for (int b = 0; b < 3; ++b)
        for (int i = 0; i < 3; ++i) {
            const std::string name = "in/s" + std::to_string(b) + std::to_string(i) + ".jpg";
            save(at(name), crop(bracket_[(i + 1) % 3], 16 * b, 8 * b, 64, 48));
            const int second = b * 3 + i + (b == 2 ? 60 : 0);
            tag(at(name), {{"Exif.Photo.DateTimeOriginal", "2026:05:01 10:0" + std::to_string(second / 60) + ":" +
                                                               std::to_string(10 + second % 60)},
                           {"Exif.Photo.ExposureBiasValue", std::to_string((i + 1) % 3 * 2 - 2 + b / 2) + "/1"}});
        }
    spill(at("in/broken.jpg"), "not a picture");
    const std::vector<std::string> outputs = {"s01_fused.png", "s11_fused.png", "s21_fused.png"};

    ToolRun r = run("--batch --format png --report @report.json @in -o @out");
    EXPECT_EQ(r.status, 1) << "a file failed";
    EXPECT_NE(r.err.find(expand("lumora-fuse: @in/broken.jpg: not a JPEG, PNG or TIFF image; skipped\n")),
              std::string::npos) << r.err;
    EXPECT_EQ(listing("out"), std::set<std::string>(outputs.begin(), outputs.end()));
    ASSERT_EQ(run("-q @in/s12.jpg @in/s10.jpg @in/s11.jpg -o @alone.png").status, 0);
    EXPECT_EQ(slurp(at("out/s11_fused.png")), slurp(at("alone.png"))) << "the second bracket, exactly";
    const std::string report = slurp(at("report.json"));
    for (const std::string key : {"\"look\": \"natural: --strength ", "\"inputs\": [", "\"output\": ", "\"frames\": [",
                                  "\"alignment\": \"none\"", "\"deghost\": \"none\"", "\"device\": \"",
                                  "\"seconds\": ", "\"status\": \"failed\"", "\"fused\": 3", "\"failed\": 1"})
        EXPECT_NE(report.find(key), std::string::npos) << key << " in " << report;

    r = run("--batch --format png --report @report.json @in -o @out");
    EXPECT_EQ(r.status, 1);
    for (const std::string &name : outputs)
        EXPECT_NE(r.err.find(expand("@out/" + name + ": exists; skipped")), std::string::npos) << r.err;
    EXPECT_NE(slurp(at("report.json")).find("\"fused\": 0, \"skipped\": 3, \"failed\": 1"), std::string::npos);
}

// Every --device gives the same bytes and --verbose names what fused: the
// CPU in place of a device that is missing, auto's choice; --list-devices
// lists them.
TEST_F(Cli, DeviceChoiceKeepsTheBytesAndIsNamed) {
    writeBracket({"a.png", "b.png", "c.png"});
    ASSERT_EQ(run("-q --device cpu @a.png @b.png -o @cpu.png").status, 0);
    ToolRun r = run("-v --device opencl:999 @a.png @b.png -o @missing.png");
    EXPECT_NE(r.err.find("lumora-fuse: fused on CPU (no OpenCL device opencl:999)\n"), std::string::npos) << r.err;
    EXPECT_TRUE(slurp(at("missing.png")) == slurp(at("cpu.png")));
    const ToolRun list = run("--list-devices");
    EXPECT_EQ(list.status, 0);
    // auto, settled before the fusing process starts: the CPU or a listed device.
    r = run("-v --device auto @a.png @b.png -o @auto.png");
    const size_t on = r.err.find("lumora-fuse: fused on ");
    ASSERT_NE(on, std::string::npos) << r.err;
    const std::string autoName = r.err.substr(on + 22, r.err.find('\n', on) - on - 22);
    EXPECT_TRUE(autoName == "CPU" || list.out.find("  " + autoName + "\n") != std::string::npos) << r.err;
    EXPECT_TRUE(slurp(at("auto.png")) == slurp(at("cpu.png")));
    if (list.out.rfind("opencl:0  ", 0) != 0) {
        EXPECT_EQ(list.out, "no OpenCL device: the CPU fuses\n");
        return;
    }
    const std::string name = list.out.substr(10, list.out.find('\n') - 10);
    r = run("-v --device opencl:0 @a.png @b.png -o @device.png");
    EXPECT_NE(r.err.find("lumora-fuse: fused on " + name + "\n"), std::string::npos) << r.err;
    EXPECT_TRUE(slurp(at("device.png")) == slurp(at("cpu.png")));
}

TEST_F(Cli, HelpFollowsGnuConventionsAndNamesEveryFusionOption) {
    const ToolRun help = run("--help");
    EXPECT_EQ(help.status, 0);
    EXPECT_EQ(help.out.rfind("Usage: lumora-fuse [OPTION]... IMAGE IMAGE [IMAGE]... -o OUTPUT\n", 0), 0u);
    for (const auto &[option, values] : kOutOfRange)
        EXPECT_NE(help.out.find(option + "="), std::string::npos) << option;
    for (int i = 0; i < kLookCount; ++i)
        EXPECT_NE(help.out.find(std::string("\n        ") + kLooks[i].name + " "), std::string::npos) << kLooks[i].name;
    std::istringstream lines(help.out);
    for (std::string line; std::getline(lines, line);) EXPECT_LE(line.size(), 79u) << line;
}

// The process a running tool fuses in, or 0.
pid_t fusionChild(pid_t tool) {
    std::istringstream children(slurp("/proc/" + std::to_string(tool) + "/task/" + std::to_string(tool) + "/children"));
    pid_t child = 0;
    children >> child;
    return child;
}

TEST_F(Cli, SigintCancelsSigkillTakesTheFusionAlongAndADyingLibraryIsReportedWithoutLeavingAnyFile) {
    prctl(PR_SET_CHILD_SUBREAPER, 1);  // an orphaned fusion comes to this process, to be awaited here
    for (int sig : {SIGINT, SIGKILL, SIGABRT}) {
        SCOPED_TRACE(strsignal(sig));
        const pid_t pid = startLargeFusion();
        const pid_t child = fusionChild(pid);
        ASSERT_GT(child, 0) << "the fusion runs in a child process";
        kill(sig == SIGABRT ? child : pid, sig);  // the library dies as an assertion would
        const ToolRun r = finish(pid);
        if (sig == SIGINT) {
            EXPECT_EQ(r.status, 130) << r.err;
            EXPECT_NE(r.err.find("lumora-fuse: cancelled; nothing written"), std::string::npos);
        } else if (sig == SIGKILL) {
            int status = 0;
            EXPECT_EQ(waitpid(child, &status, 0), child);
            EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) << "the fusion died with the tool";
        } else {
            EXPECT_EQ(r.status, 1);
            EXPECT_NE(r.err.find("lumora-fuse: the fusion failed with these exposures and settings: the library "
                                 "stopped"), std::string::npos) << r.err;
        }
        EXPECT_EQ(listing(), largeInputs_) << "no output and no temporary file, visible or hidden";
    }
    prctl(PR_SET_CHILD_SUBREAPER, 0);
}

TEST_F(Cli, MetadataThatNoLongerFitAreLeftOutOfAWholePicture) {
    writeBracket({"d.png", "m.png", "b.png"});
    ASSERT_EQ(run("-q @d.png @m.png @b.png -o @plain.jpg").status, 0);
    const std::string plain = slurp(at("plain.jpg"));
    tag(at("m.png"), {{"Xmp.dc.description", std::string(20000, 'x')}});
    const ToolRun r = run("@d.png @m.png @b.png -o @f.jpg", {.resource = RLIMIT_FSIZE, .limit = plain.size() + 1000});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.err, expand("lumora-fuse: @f.jpg: metadata of @m.png not copied: File too large\n"));
    EXPECT_TRUE(slurp(at("f.jpg")) == plain) << "the plain picture, whole";
}

}  // namespace
