// progress_bar.cpp: the bar, redrawn after a carriage return and never
// followed by a new line.
#include "progress_bar.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
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

// The terminal's width: as the terminal reports it (so a resized window is
// followed), else COLUMNS, else 80.
int ProgressBar::columns() const {
    struct winsize size;
    if (ioctl(fd_, TIOCGWINSZ, &size) == 0 && size.ws_col > 0)
        return size.ws_col;
    if (const char *text = getenv("COLUMNS")) {
        const long n = strtol(text, nullptr, 10);
        if (n > 0 && n < 100000)
            return int(n);
    }
    return 80;
}

// "fusing [####......]  42%", the bar at most 30 wide and shortened to fit,
// down to the bare percentage on a very narrow terminal. The last column
// stays empty: writing there makes many terminals move to a new line.
void ProgressBar::draw(double fraction) {
    const int percent = int(std::clamp(fraction, 0.0, 1.0) * 100.0);
    if (percent == drawn_)
        return;
    drawn_ = percent;
    const int frame = 14;  // "fusing [", "] " and " 42%"
    const int width = std::min(30, columns() - 1 - frame);
    char tail[8];
    snprintf(tail, sizeof tail, "%3d%%", percent);
    std::string text = "\r";
    if (width >= 5) {
        const int filled = percent * width / 100;
        text += "fusing [" + std::string(size_t(filled), '#') + std::string(size_t(width - filled), '.') + "] ";
    }
    text += tail;
    writeAll(fd_, text.data(), text.size());
}

void ProgressBar::clear() {
    static const char text[] = "\r\033[K";
    writeAll(fd_, text, sizeof text - 1);
    drawn_ = -1;
}

}  // namespace lumora_fuse
