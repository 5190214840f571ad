// progress_bar.cpp: the bar, drawn with a carriage return and no new line.
#include "progress_bar.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <string>

namespace lumora_fuse {

void writeAll(int fd, const char *data, unsigned long size) {
    while (size > 0) {
        const ssize_t n = write(fd, data, size);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return;
        data += n;
        size -= size_t(n);
    }
}

void ProgressBar::draw(double fraction) {
    const int percent = int(std::clamp(fraction, 0.0, 1.0) * 100.0);
    if (percent == drawn_)
        return;
    drawn_ = percent;
    const int width = 30, filled = percent * width / 100;
    std::string text = "\rfusing [" + std::string(size_t(filled), '#') + std::string(size_t(width - filled), '.') +
                       "] ";
    char tail[8];
    snprintf(tail, sizeof tail, "%3d%%", percent);
    text += tail;
    writeAll(fd_, text.data(), text.size());
}

void ProgressBar::clear() {
    static const char text[] = "\r\033[K";
    writeAll(fd_, text, sizeof text - 1);
    drawn_ = -1;
}

}  // namespace lumora_fuse
