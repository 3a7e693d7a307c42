// Line format: "route" TAB stream-serial TAB tap-serial TAB object TAB node,
// where object and node are "-" (absent) or type + "=" + value, each escaped so
// that tabs, newlines and backslashes cannot break the line.
#include "Platform/PipeWire/RoutingJournal.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <unistd.h>

namespace sorva {

namespace {

std::string escape(const std::string& text)
{
    std::string out;
    for (char c : text) {
        switch (c) {
        case '\\': out += "\\\\"; break;
        case '\t': out += "\\t"; break;
        case '\n': out += "\\n"; break;
        case '=': out += "\\e"; break;
        default: out += c;
        }
    }
    return out;
}

std::optional<std::string> unescape(const std::string& text)
{
    std::string out;
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '\\') {
            out += text[i];
            continue;
        }
        if (++i == text.size())
            return std::nullopt;
        switch (text[i]) {
        case '\\': out += '\\'; break;
        case 't': out += '\t'; break;
        case 'n': out += '\n'; break;
        case 'e': out += '='; break;
        default: return std::nullopt;
        }
    }
    return out;
}

std::string encode(const std::optional<RoutingJournal::Value>& value)
{
    if (!value)
        return "-";
    return escape(value->type) + "=" + escape(value->value);
}

bool decode(const std::string& field, std::optional<RoutingJournal::Value>& value)
{
    if (field == "-") {
        value.reset();
        return true;
    }
    auto equals = field.find('=');
    if (equals == std::string::npos)
        return false;
    auto type = unescape(field.substr(0, equals));
    auto text = unescape(field.substr(equals + 1));
    if (!type || !text)
        return false;
    value = RoutingJournal::Value { *type, *text };
    return true;
}

bool parseSerial(const std::string& field, uint64_t& serial)
{
    if (field.empty() || field.find_first_not_of("0123456789") != std::string::npos)
        return false;
    errno = 0;
    char* end = nullptr;
    unsigned long long parsed = std::strtoull(field.c_str(), &end, 10);
    if (errno != 0 || *end != '\0')
        return false;
    serial = parsed;
    return true;
}

} // namespace

RoutingJournal::RoutingJournal(std::filesystem::path file)
    : file(std::move(file))
{
}

std::filesystem::path RoutingJournal::defaultPath()
{
    const char* state = std::getenv("XDG_STATE_HOME");
    std::filesystem::path base;
    if (state && state[0] == '/') {
        base = state;
    } else {
        const char* home = std::getenv("HOME");
        base = std::filesystem::path(home && home[0] ? home : "/tmp") / ".local" / "state";
    }
    return base / "sorva" / "routing-journal";
}

bool RoutingJournal::append(const Entry& entry, std::string& error)
{
    std::error_code ec;
    std::filesystem::create_directories(file.parent_path(), ec);
    if (ec) {
        error = "cannot create " + file.parent_path().string() + ": " + ec.message();
        return false;
    }
    const std::string text = line(entry);
    int fd = ::open(file.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    if (fd < 0) {
        error = "cannot open " + file.string() + ": " + std::strerror(errno);
        return false;
    }
    // One write of the whole line (O_APPEND): a crash leaves either the line
    // or nothing, never half of it followed by another entry.
    ssize_t written = ::write(fd, text.data(), text.size());
    int writeErrno = errno;
    ::fdatasync(fd);
    ::close(fd);
    if (written != static_cast<ssize_t>(text.size())) {
        error = "cannot write " + file.string() + ": " + std::strerror(written < 0 ? writeErrno : EIO);
        return false;
    }
    return true;
}

std::vector<RoutingJournal::Entry> RoutingJournal::entries() const
{
    // Only a regular file is read, and only its first largestJournal bytes:
    // a FIFO, a device or a link to /dev/zero in its place must neither block
    // the start nor eat the memory. Non-blocking so that opening a FIFO
    // returns at once.
    const int fd = ::open(file.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (fd < 0)
        return {};
    std::string text;
    struct stat info {};
    if (::fstat(fd, &info) == 0 && S_ISREG(info.st_mode)) {
        text.resize(static_cast<size_t>(std::min<off_t>(info.st_size, largestJournal)));
        size_t done = 0;
        while (done < text.size()) {
            const ssize_t n = ::read(fd, text.data() + done, text.size() - done);
            if (n < 0 && errno == EINTR)
                continue;
            if (n <= 0)
                break;
            done += static_cast<size_t>(n);
        }
        text.resize(done);
    }
    ::close(fd);
    return parse(text);
}

std::vector<RoutingJournal::Entry> RoutingJournal::parse(std::string_view text)
{
    std::vector<Entry> found;
    while (!text.empty()) {
        const size_t end = text.find('\n');
        const std::string_view line = text.substr(0, end);
        text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
        std::vector<std::string> fields;
        size_t start = 0;
        for (;;) {
            const size_t tab = line.find('\t', start);
            fields.emplace_back(line.substr(start, tab == std::string_view::npos ? std::string_view::npos : tab - start));
            if (tab == std::string_view::npos || fields.size() > 5)
                break;
            start = tab + 1;
        }
        if (fields.size() != 5 || fields[0] != "route")
            continue;
        Entry entry;
        if (!parseSerial(fields[1], entry.streamSerial) || !parseSerial(fields[2], entry.tapSerial)
            || !decode(fields[3], entry.previousObject) || !decode(fields[4], entry.previousNode))
            continue;
        found.push_back(std::move(entry));
    }
    return found;
}

std::string RoutingJournal::line(const Entry& entry)
{
    return "route\t" + std::to_string(entry.streamSerial) + "\t" + std::to_string(entry.tapSerial) + "\t"
        + encode(entry.previousObject) + "\t" + encode(entry.previousNode) + "\n";
}

void RoutingJournal::clear()
{
    std::error_code ec;
    std::filesystem::remove(file, ec);
}

} // namespace sorva
