// The routing journal's reader on arbitrary text: it must not crash, and every
// entry it accepts must survive being written and read again unchanged (so a
// replay restores exactly what the line said).
#include "Platform/PipeWire/RoutingJournal.h"

#include <cstdint>
#include <cstdlib>
#include <string_view>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    using sorva::RoutingJournal;
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    for (const RoutingJournal::Entry& entry : RoutingJournal::parse(text)) {
        const std::string line = RoutingJournal::line(entry);
        if (line.find('\n') != line.size() - 1)
            std::abort(); // a value broke out of its line
        const auto again = RoutingJournal::parse(line);
        if (again.size() != 1 || again[0] != entry)
            std::abort();
    }
    return 0;
}
