// Sends a message to the systemd journal with SYSLOG_IDENTIFIER=sorva and the
// subsystem and category as fields. Where no journal runs (containers, CI),
// the call does nothing. Thread-safe; never blocks for long (a datagram send).
#pragma once

#include <string_view>

namespace sorva {

void journalSend(std::string_view subsystem, std::string_view category, std::string_view message);

} // namespace sorva
