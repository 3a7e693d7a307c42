#include "Models/EQSettings.h"

#include "Audio/EQLog.h"

#include <QLocale>
#include <QSettings>
#include <QString>
#include <QStringList>
#include <QVariant>

#include <fcntl.h>
#include <pwd.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cmath>
#include <cstdlib>
#include <optional>

namespace sorva::EQSettings {

namespace {

constexpr double minBandGain = -24.0;
constexpr double maxBandGain = 24.0;
constexpr double minOutputGain = -6.0;
constexpr double maxOutputGain = 6.0;
constexpr double defaultLatencyMs = 125.0;

std::filesystem::path homeDirectory()
{
    if (const char* home = std::getenv("HOME"); home && *home)
        return home;
    if (const passwd* entry = getpwuid(getuid()); entry && entry->pw_dir)
        return entry->pw_dir;
    return "/";
}

QString qPath(const std::filesystem::path& path)
{
    return QString::fromStdString(path.string());
}

// QSettings serialises writers with a lock file next to the settings file,
// which holds the writer's process ID. A writer killed between creating that
// file and filling it leaves an empty lock that QSettings only takes for stale
// after 30 seconds, blocking the next write that long. An empty lock file
// that nobody holds an flock on is such a leftover: remove it.
void removeAbandonedLock()
{
    const std::string lockPath = filePath().string() + ".lock";
    const int fd = ::open(lockPath.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return;
    struct stat info {};
    if (fstat(fd, &info) == 0 && info.st_size == 0 && flock(fd, LOCK_EX | LOCK_NB) == 0) {
        if (fstat(fd, &info) == 0 && info.st_size == 0)
            ::unlink(lockPath.c_str());
        flock(fd, LOCK_UN);
    }
    ::close(fd);
}

// One QSettings per operation: cheap (Qt shares the parsed file between
// instances and re-reads it only when it changed on disk) and always in step
// with the file.
QSettings openSettings()
{
    removeAbandonedLock();
    return QSettings(qPath(filePath()), QSettings::IniFormat);
}

// A stored value as a number, whichever way it reached us: typed (written by
// this process and still cached) or as text (read back from the file). NaN
// is not a number; infinities are, and clamp like any large value.
std::optional<double> numberFrom(const QVariant& value)
{
    double result = 0;
    switch (value.typeId()) {
    case QMetaType::Double:
    case QMetaType::Float:
    case QMetaType::Int:
    case QMetaType::UInt:
    case QMetaType::LongLong:
    case QMetaType::ULongLong:
        result = value.toDouble();
        break;
    case QMetaType::QString: {
        bool ok = false;
        result = QLocale::c().toDouble(value.toString().trimmed(), &ok);
        if (!ok)
            return std::nullopt;
        break;
    }
    default:
        return std::nullopt;
    }
    if (std::isnan(result))
        return std::nullopt;
    return result;
}

// Booleans come back from the file as the text QSettings wrote.
std::optional<bool> booleanFrom(const QVariant& value)
{
    if (value.typeId() == QMetaType::Bool)
        return value.toBool();
    if (value.typeId() == QMetaType::QString) {
        const QString text = value.toString().trimmed();
        if (text.compare(QLatin1String("true"), Qt::CaseInsensitive) == 0)
            return true;
        if (text.compare(QLatin1String("false"), Qt::CaseInsensitive) == 0)
            return false;
    }
    return std::nullopt;
}

// "bandGains" as a list of numbers, or nothing if it is absent or any element
// is not a number. A single hand-written value comes back as plain text and
// counts as a list of one.
std::optional<std::vector<double>> storedGains(const QSettings& settings)
{
    const QVariant stored = settings.value(QStringLiteral("bandGains"));
    QVariantList elements;
    switch (stored.typeId()) {
    case QMetaType::QVariantList:
        elements = stored.toList();
        break;
    case QMetaType::QStringList:
        for (const QString& text : stored.toStringList())
            elements.append(text);
        break;
    case QMetaType::QString:
        elements.append(stored);
        break;
    default:
        return std::nullopt;
    }
    std::vector<double> gains;
    for (const QVariant& element : elements) {
        const std::optional<double> gain = numberFrom(element);
        if (!gain)
            return std::nullopt;
        gains.push_back(*gain);
    }
    return gains;
}

double clamped(double value, double low, double high)
{
    if (value <= low)
        value = low;
    if (value > high)
        value = high;
    return value;
}

void write(const QString& key, const QVariant& value)
{
    QSettings settings = openSettings();
    settings.setValue(key, value);
    settings.sync();
    if (settings.status() == QSettings::AccessError)
        EQLog::trace([&] { return "settings not saved: cannot write " + filePath().string(); });
}

} // namespace

std::filesystem::path filePath()
{
    std::filesystem::path base;
    if (const char* xdg = std::getenv("XDG_CONFIG_HOME"); xdg && *xdg && xdg[0] == '/')
        base = xdg;
    else
        base = homeDirectory() / ".config";
    return base / "sorva" / "sorva.conf";
}

EQConfig loadConfig()
{
    EQConfig config = EQConfig::defaultConfig();
    const QSettings settings = openSettings();
    const std::optional<std::vector<double>> gains = storedGains(settings);
    if (!gains || gains->size() != config.bands.size())
        return config;
    for (size_t i = 0; i < config.bands.size(); ++i)
        config.bands[i].gain = clamped((*gains)[i], minBandGain, maxBandGain);
    const double output = numberFrom(settings.value(QStringLiteral("outputGain"))).value_or(0.0);
    config.outputGain = clamped(output, minOutputGain, maxOutputGain);
    return config;
}

void saveGains(const std::vector<EQBand>& bands)
{
    QVariantList gains;
    for (const EQBand& band : bands)
        gains.append(band.gain);
    write(QStringLiteral("bandGains"), gains);
}

bool bufferedMode()
{
    return booleanFrom(openSettings().value(QStringLiteral("bufferedMode"))).value_or(false);
}

void saveOutputGain(double gainDB)
{
    write(QStringLiteral("outputGain"), gainDB);
}

bool eqEnabled()
{
    return booleanFrom(openSettings().value(QStringLiteral("eqEnabled"))).value_or(false);
}

void setEQEnabled(bool enabled)
{
    write(QStringLiteral("eqEnabled"), enabled);
}

double bufferLatencyMs()
{
    const double stored = numberFrom(openSettings().value(QStringLiteral("bufferLatencyMs"))).value_or(0.0);
    if (!std::isfinite(stored) || stored <= 0)
        return defaultLatencyMs;
    return stored;
}

} // namespace sorva::EQSettings
