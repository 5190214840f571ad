// progress_bar.h: the progress bar lumora-fuse draws on a terminal.
#pragma once

namespace lumora_fuse {

// One line, redrawn in place on the terminal's error stream and fitted to
// the terminal's width at every redraw.
class ProgressBar {
public:
    explicit ProgressBar(int fd) : fd_(fd) {}
    // Redraws when the whole percentage of fraction (0 to 1) changes.
    void draw(double fraction);
    // Erases the line.
    void clear();

private:
    int columns() const;

    int fd_;
    int drawn_ = -1;  // the percentage on screen, -1 when none
};

// Writes all of data to fd, retrying interrupted writes; async-signal-safe.
void writeAll(int fd, const char *data, unsigned long size);

}  // namespace lumora_fuse
