#include "App/ProgressBar.h"

#include <algorithm>

namespace sorva {

namespace {
constexpr int barWidth = 30;
}

ProgressBar::ProgressBar(std::FILE* stream, std::string title, int64_t total)
    : stream(stream)
    , title(std::move(title))
    , total(std::max<int64_t>(total, 1))
{
}

void ProgressBar::update(int64_t done)
{
    const int percent = static_cast<int>(std::clamp<int64_t>(done * 100 / total, 0, 100));
    if (percent == shownPercent)
        return;
    shownPercent = percent;
    const int filled = percent * barWidth / 100;
    std::string bar(static_cast<size_t>(filled), '#');
    bar.append(static_cast<size_t>(barWidth - filled), '-');
    std::fprintf(stream, "\r%s [%s] %3d%%", title.c_str(), bar.c_str(), percent);
    std::fflush(stream);
    drawn = true;
}

void ProgressBar::finish()
{
    if (!drawn)
        return;
    update(total);
    std::fputc('\n', stream);
    std::fflush(stream);
    drawn = false;
}

void ProgressBar::clear()
{
    if (!drawn)
        return;
    // Carriage return, then erase to the end of the line.
    std::fputs("\r\033[K", stream);
    std::fflush(stream);
    drawn = false;
}

} // namespace sorva
