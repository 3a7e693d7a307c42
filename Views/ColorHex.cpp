#include "Views/ColorHex.h"

#include <limits>

namespace sorva {

namespace {

bool isSkippedSpace(char c)
{
    return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\v' || c == '\f';
}

int hexDigit(char c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
}

} // namespace

uint64_t scanHexValue(std::string_view text)
{
    size_t at = 0;
    while (at < text.size() && isSkippedSpace(text[at]))
        ++at;
    // "0x" counts as a prefix only when a digit follows; "0" alone or "0xg"
    // reads as the digit 0, which gives the same value.
    if (at + 2 < text.size() && text[at] == '0' && (text[at + 1] == 'x' || text[at + 1] == 'X')
        && hexDigit(text[at + 2]) >= 0)
        at += 2;

    constexpr uint64_t largest = std::numeric_limits<uint64_t>::max();
    uint64_t value = 0;
    bool overflowed = false;
    for (; at < text.size(); ++at) {
        const int digit = hexDigit(text[at]);
        if (digit < 0)
            break;
        if (value > (largest >> 4))
            overflowed = true;
        value = (value << 4) | static_cast<uint64_t>(digit);
    }
    return overflowed ? largest : value;
}

QColor colorFromHex(std::string_view text)
{
    const uint64_t value = scanHexValue(text);
    const int red = static_cast<int>((value >> 16) & 0xFF);
    const int green = static_cast<int>((value >> 8) & 0xFF);
    const int blue = static_cast<int>(value & 0xFF);
    // QColor's RGB model is sRGB.
    return QColor(red, green, blue, 255);
}

} // namespace sorva
