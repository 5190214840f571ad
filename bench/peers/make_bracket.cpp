// make_bracket: scales the three exposures of a bracket to one size with
// bicubic interpolation and writes them as JPEG files, the common input of
// bench/peer_comparison.sh. Files are written under temporary names and
// renamed at the end, so an interrupted run leaves no half bracket behind.
#include <cstdio>
#include <cstdlib>
#include <string>

#include <opencv2/core.hpp>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

int main(int argc, char **argv) {
    if (argc < 5 || argc > 6) {
        fprintf(stderr, "Usage: make_bracket SRC_DIR WIDTH HEIGHT OUT_DIR [QUALITY]\n"
                        "Reads SRC_DIR/{0_dark,1_mid,2_bright}.png and writes OUT_DIR/<same>.jpg.\n");
        return 2;
    }
    const std::string src = argv[1], out = argv[4];
    const int width = atoi(argv[2]), height = atoi(argv[3]);
    const int quality = argc == 6 ? atoi(argv[5]) : 95;
    if (width < 1 || height < 1 || quality < 1 || quality > 100) {
        fprintf(stderr, "make_bracket: bad size %sx%s or quality\n", argv[2], argv[3]);
        return 2;
    }
    const char *names[] = {"0_dark", "1_mid", "2_bright"};
    for (const char *name : names) {
        const std::string in = src + "/" + name + ".png";
        cv::Mat image = cv::imread(in, cv::IMREAD_COLOR);
        if (image.empty()) {
            fprintf(stderr, "make_bracket: cannot read %s\n", in.c_str());
            return 1;
        }
        cv::Mat scaled;
        cv::resize(image, scaled, cv::Size(width, height), 0, 0, cv::INTER_CUBIC);
        const std::string path = out + "/" + name + ".jpg";
        const std::string partial = out + "/." + name + ".partial.jpg";
        if (!cv::imwrite(partial, scaled, {cv::IMWRITE_JPEG_QUALITY, quality}) ||
            rename(partial.c_str(), path.c_str()) != 0) {
            fprintf(stderr, "make_bracket: cannot write %s\n", path.c_str());
            return 1;
        }
    }
    return 0;
}
