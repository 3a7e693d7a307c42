// The settings reader on arbitrary file contents. Every read must give values
// in their documented ranges; a save must then read back exactly; and a file
// the reader moved aside as unreadable must hold the original bytes (the
// user's file is never lost).
#include "Models/EQSettings.h"

#include "FuzzFolder.h"

#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>

namespace {

[[noreturn]] void fail(const char* what)
{
    sorva::fuzzing::fail("settings", what);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    namespace fs = std::filesystem;
    using namespace sorva;
    // A new folder per input: QSettings caches parsed files by path and
    // might not notice a rewrite within the same second.
    static uint64_t run = 0;
    const fs::path home = fuzzing::scratchFolder() / std::to_string(run++);
    ::setenv("XDG_CONFIG_HOME", home.c_str(), 1);
    const fs::path file = EQSettings::filePath();
    // Never anywhere but the scratch folder (a relative folder would send
    // the reader to the real ~/.config).
    if (!file.string().starts_with(home.string() + "/"))
        fail("the settings file is outside the scratch folder");
    fs::create_directories(file.parent_path());
    const std::string bytes(reinterpret_cast<const char*>(data), size);
    std::ofstream(file, std::ios::binary) << bytes;

    const EQConfig config = EQSettings::loadConfig();
    if (config.bands.size() != EQConfig::defaultConfig().bands.size())
        fail("band count");
    for (const EQBand& band : config.bands)
        if (!(band.gain >= -24 && band.gain <= 24))
            fail("band gain out of range");
    if (!(config.outputGain >= -6 && config.outputGain <= 6))
        fail("output gain out of range");
    const double latency = EQSettings::bufferLatencyMs();
    if (!std::isfinite(latency) || latency <= 0)
        fail("latency");
    (void)EQSettings::bufferedMode();
    const bool enabled = EQSettings::eqEnabled();

    EQSettings::saveGains(config.bands);
    EQSettings::setEQEnabled(!enabled);
    const EQConfig again = EQSettings::loadConfig();
    for (size_t i = 0; i < config.bands.size(); ++i)
        if (again.bands[i].gain != config.bands[i].gain)
            fail("saved gains do not read back");
    if (EQSettings::eqEnabled() == enabled)
        fail("saved switch does not read back");

    for (const auto& entry : fs::directory_iterator(file.parent_path())) {
        if (!entry.path().filename().string().starts_with("sorva.conf.unreadable-"))
            continue;
        std::ifstream kept(entry.path(), std::ios::binary);
        if (std::string(std::istreambuf_iterator<char>(kept), {}) != bytes)
            fail("the kept file differs from the original");
    }
    std::error_code ignored;
    fs::remove_all(home, ignored);
    return 0;
}
