// cli_support.h: what the end-to-end tests of lumora-fuse share: a folder of
// their own, the tool run as a user runs it, and the sample bracket.
#pragma once

#include <sys/resource.h>
#include <sys/types.h>

#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <png.h>

#include "image_io.h"

namespace lumora_cli {

using lumora_fuse::Image;

std::string slurp(const std::string &path);
void spill(const std::string &path, const std::string &bytes);
Image load(const std::string &path);
void save(const std::string &path, const Image &image, int quality = 98);
Image crop(const Image &in, int x0, int y0, int w, int h);
// Resampled to w x h (box averages when shrinking).
Image scaled(const Image &in, int w, int h);
// A PNG in one of the layouts the tool converts (libpng's PNG_FORMAT_GA, _RGBA, _RGB_COLORMAP, ...).
void writePng(const std::string &path, int w, int h, png_uint_32 format, const void *pixels,
              const std::vector<png_color> &palette = {});
// A TIFF of w x h RGBA pixels in one strip, or (without pixels) one whose header claims w x h over one byte.
void writeTiff(const std::string &path, uint32_t w, uint32_t h, std::vector<unsigned char> rgba = {});
double meanAbsDiff(const std::vector<unsigned char> &a, const std::vector<unsigned char> &b);
// The shipped 512x384 bracket, darkest first (0 to 2).
const Image &sample(int i);

struct ToolRun {
    int status = -1;       // exit status, or 128 + signal
    std::string out, err;  // standard output and error
};

// How to start the tool: one resource lowered (SIGXFSZ then ignored, so that a
// write past RLIMIT_FSIZE fails with EFBIG).
struct Launch {
    int resource = -1;
    rlim_t limit = 0;
};

class ToolTest : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;
    std::string at(const std::string &name) const { return dir_ + "/" + name; }
    // Every "@" stands for the test folder; "%" then for a plain "@" (an argument file).
    std::string expand(std::string text) const;
    // The tool on a command line split at spaces.
    pid_t start(const std::string &line, const Launch &how = {}) const;
    // Waits for the tool; maxRssKib gets the peak memory of the run and its children.
    ToolRun finish(pid_t pid, long *maxRssKib = nullptr) const;
    ToolRun run(const std::string &line, const Launch &how = {}, long *maxRssKib = nullptr) const {
        return finish(start(line, how), maxRssKib);
    }
    std::set<std::string> listing(const std::string &folder = "") const;
    std::string dir_, outPath_, errPath_;
};

}  // namespace lumora_cli
