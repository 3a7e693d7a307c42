// The brand's hex colour texts ("BB2C90") as colours. The text is read as one
// hexadecimal integer: leading white space and an optional "0x"/"0X" prefix
// are skipped, then as many hexadecimal digits as follow are read (none gives
// 0). Only the low 24 bits count (red 16-23, green 8-15, blue 0-7); opacity
// is always 1 and the colour is sRGB. Text that is not hexadecimal gives black.
//
// Threads: any.
#pragma once

#include <QColor>

#include <cstdint>
#include <string_view>

namespace sorva {

// The integer value the scan reads (saturating at the largest unsigned 64-bit
// value on overflow, as the scan it follows does).
uint64_t scanHexValue(std::string_view text);

QColor colorFromHex(std::string_view text);

} // namespace sorva
