// mertens_fuse: OpenCV's exposure fusion (cv::MergeMertens with its default
// weights) as a command-line peer for bench/peer_comparison.sh. The whole run
// is timed from outside, so reading the inputs and writing the JPEG count too,
// as they do for the other tools.
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include <opencv2/core.hpp>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/photo.hpp>

static int usage() {
    fprintf(stderr,
            "Usage: mertens_fuse [--threads N] [--quality Q] IMAGE IMAGE [IMAGE]... -o OUTPUT.jpg\n");
    return 2;
}

int main(int argc, char **argv) {
    int threads = 2, quality = 95;
    std::string output;
    std::vector<std::string> inputs;
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        if ((a == "--threads" || a == "--quality" || a == "-o") && i + 1 >= argc)
            return usage();
        if (a == "--threads")
            threads = atoi(argv[++i]);
        else if (a == "--quality")
            quality = atoi(argv[++i]);
        else if (a == "-o")
            output = argv[++i];
        else if (!a.empty() && a[0] == '-')
            return usage();
        else
            inputs.push_back(a);
    }
    if (inputs.size() < 2 || output.empty() || threads < 1 || quality < 1 || quality > 100)
        return usage();

    cv::setNumThreads(threads);
    std::vector<cv::Mat> images;
    for (const std::string &path : inputs) {
        cv::Mat m = cv::imread(path, cv::IMREAD_COLOR);
        if (m.empty()) {
            fprintf(stderr, "mertens_fuse: cannot read %s\n", path.c_str());
            return 1;
        }
        if (!images.empty() && m.size() != images[0].size()) {
            fprintf(stderr, "mertens_fuse: %s is %dx%d, the first image %dx%d\n", path.c_str(),
                    m.cols, m.rows, images[0].cols, images[0].rows);
            return 1;
        }
        images.push_back(m);
    }

    cv::Mat fused, result;
    cv::createMergeMertens()->process(images, fused);  // CV_32FC3, about 0..1
    fused.convertTo(result, CV_8UC3, 255.0);            // rounds and saturates to 0..255
    if (!cv::imwrite(output, result, {cv::IMWRITE_JPEG_QUALITY, quality})) {
        fprintf(stderr, "mertens_fuse: cannot write %s\n", output.c_str());
        return 1;
    }
    fprintf(stderr, "mertens_fuse: %zu images %dx%d, %d threads -> %s\n", images.size(), result.cols,
            result.rows, cv::getNumThreads(), output.c_str());
    return 0;
}
