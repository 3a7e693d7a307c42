// A one-line progress bar for long offline runs, redrawn in place with a
// carriage return. The caller decides whether to show one at all (only when
// the stream is a terminal).
// Threads: used by one thread.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>

namespace sorva {

class ProgressBar {
public:
    ProgressBar(std::FILE* stream, std::string title, int64_t total);

    // Redraws when the shown percentage changes.
    void update(int64_t done);
    // Ends the line after a complete run.
    void finish();
    // Erases the bar, so that an error message starts on a clean line.
    void clear();

private:
    std::FILE* stream;
    std::string title;
    int64_t total;
    int shownPercent = -1;
    bool drawn = false;
};

} // namespace sorva
