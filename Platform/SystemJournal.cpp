#include "Platform/SystemJournal.h"

#include <string>
#include <sys/stat.h>

#ifdef SORVA_HAVE_JOURNAL
#include <systemd/sd-journal.h>
#endif

namespace sorva {

void journalSend(std::string_view subsystem, std::string_view category, std::string_view message)
{
#ifdef SORVA_HAVE_JOURNAL
    // Checked once: without journald's socket every send would fail anyway.
    static const bool journalRuns = [] {
        struct stat info {};
        return stat("/run/systemd/journal/socket", &info) == 0;
    }();
    if (!journalRuns)
        return;
    std::string text(message);
    std::string sub(subsystem);
    std::string cat(category);
    sd_journal_send("MESSAGE=%s", text.c_str(), "SYSLOG_IDENTIFIER=sorva", "SORVA_SUBSYSTEM=%s", sub.c_str(),
                    "SORVA_CATEGORY=%s", cat.c_str(), "PRIORITY=6", nullptr);
#else
    (void)subsystem;
    (void)category;
    (void)message;
#endif
}

} // namespace sorva
