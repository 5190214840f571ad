// make_bracket: scales the three exposures of a bracket to one size with
// bicubic interpolation and writes them as JPEG files, the common input of
// bench/peer_comparison.sh. Files are written under temporary names and
// renamed at the end, so an interrupted run leaves no half bracket behind.
//
// With TEXTURE "textured" the upscaled scene gets the fine detail an upscale
// lacks, so that it looks like a real photograph to the filters: one texture
// for all three exposures (the same scene), a multiplicative mix of
// fine gratings and smoothed noise a few pixels across, of about +-8%, and
// then a little sensor noise of its own in each exposure (about 1.5 levels).
// Fixed seeds: the same arguments give the same files.
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include <opencv2/core.hpp>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

int main(int argc, char **argv) {
    if (argc < 5 || argc > 7) {
        fprintf(stderr, "Usage: make_bracket SRC_DIR WIDTH HEIGHT OUT_DIR [QUALITY [TEXTURE]]\n"
                        "Reads SRC_DIR/{0_dark,1_mid,2_bright}.png and writes OUT_DIR/<same>.jpg.\n"
                        "TEXTURE: smooth (default) or textured.\n");
        return 2;
    }
    const std::string src = argv[1], out = argv[4];
    const int width = atoi(argv[2]), height = atoi(argv[3]);
    const int quality = argc >= 6 ? atoi(argv[5]) : 95;
    const std::string texture = argc == 7 ? argv[6] : "smooth";
    if (width < 1 || height < 1 || quality < 1 || quality > 100 ||
        (texture != "smooth" && texture != "textured")) {
        fprintf(stderr, "make_bracket: bad size %sx%s, quality or texture\n", argv[2], argv[3]);
        return 2;
    }
    // The scene's texture, a factor per pixel around 1.
    cv::Mat detail;
    if (texture == "textured") {
        cv::Mat noise(height, width, CV_32F);
        cv::RNG(1234).fill(noise, cv::RNG::NORMAL, 0.0, 1.0);
        cv::GaussianBlur(noise, noise, cv::Size(0, 0), 1.2);
        cv::normalize(noise, noise, -1.0, 1.0, cv::NORM_MINMAX);
        detail.create(height, width, CV_32F);
        for (int y = 0; y < height; y++) {
            float *d = detail.ptr<float>(y);
            const float *n = noise.ptr<float>(y);
            for (int x = 0; x < width; x++) {
                const float grating = std::sin(x * 1.9f + y * 0.7f) * std::sin(y * 1.3f - x * 0.4f);
                d[x] = 1.0f + 0.05f * n[x] + 0.03f * grating;
            }
        }
    }
    int exposure = 0;
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
        if (!detail.empty()) {
            cv::Mat f, grain(height, width, CV_32FC3);
            scaled.convertTo(f, CV_32FC3);
            cv::Mat factor;
            cv::merge(std::vector<cv::Mat>{detail, detail, detail}, factor);
            cv::multiply(f, factor, f);
            cv::RNG(99 + exposure).fill(grain, cv::RNG::NORMAL, 0.0, 1.5);
            f += grain;
            f.convertTo(scaled, CV_8UC3);  // rounded and saturated
        }
        exposure++;
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
