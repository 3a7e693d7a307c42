#include "Audio/DecimalText.h"

#include <charconv>
#include <cmath>

namespace sorva {

std::string decimalText(double value)
{
    if (std::isnan(value))
        return "nan";
    if (std::isinf(value))
        return value > 0 ? "inf" : "-inf";
    char text[64];
    // Plain notation for the magnitudes this program prints (rates, gains,
    // milliseconds); scientific only where plain would be unreadable.
    const double magnitude = std::fabs(value);
    const auto format = (magnitude != 0.0 && (magnitude < 1e-4 || magnitude >= 1e16)) ? std::chars_format::scientific
                                                                                       : std::chars_format::fixed;
    auto [end, error] = std::to_chars(text, text + sizeof text, value, format);
    if (error != std::errc())
        return std::to_string(value);
    std::string result(text, end);
    if (format == std::chars_format::fixed && result.find('.') == std::string::npos)
        result += ".0";
    return result;
}

} // namespace sorva
