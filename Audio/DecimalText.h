// Floating-point numbers as the log lines and context texts print them: the
// shortest decimal that reads back as the same double, with at least one
// fractional digit ("48000.0", "44100.0", "48000.5", "0.1").
#pragma once

#include <string>

namespace sorva {

std::string decimalText(double value);

} // namespace sorva
