// `sorva process`'s input handling on arbitrary bytes, through the very code
// the program runs (OfflineProcessor::process on a memory file): each input
// gives either a one-line error or a complete float WAV whose every sample is
// finite and within the limiter's ceiling, and never a file left behind.
#include "App/OfflineProcessor.h"

#include "FuzzFolder.h"
#include "Models/EQPresets.h"

#include <sndfile.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <vector>

namespace {

[[noreturn]] void fail(const char* what)
{
    sorva::fuzzing::fail("process", what);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    namespace fs = std::filesystem;
    using namespace sorva;
    static const fs::path folder = fuzzing::scratchFolder() / "process";
    static const OfflineProcessor processor([] {
        fs::create_directories(folder);
        OfflineProcessor::Options options;
        options.gains = std::vector<double> { 12, -12, 6, -6, 12 };
        options.outputGain = 6;
        return OfflineProcessor::configure(options, EQConfig::defaultConfig());
    }());

    const int memory = ::memfd_create("sorva-fuzz-input", MFD_CLOEXEC);
    if (memory < 0 || ::write(memory, data, size) != static_cast<ssize_t>(size))
        fail("memfd");
    const fs::path input = "/proc/self/fd/" + std::to_string(memory);
    const fs::path output = folder / "out.wav";
    try {
        const OfflineProcessor::Summary summary = processor.process(input, output);
        SF_INFO info {};
        SNDFILE* written = sf_open(output.c_str(), SFM_READ, &info);
        if (!written || info.frames != summary.frames || info.channels != summary.channels)
            fail("the output does not match the summary");
        std::vector<float> samples(static_cast<size_t>(info.frames * info.channels));
        if (sf_readf_float(written, samples.data(), info.frames) != info.frames)
            fail("the output is short");
        sf_close(written);
        for (float sample : samples)
            if (!std::isfinite(sample) || std::fabs(sample) > 0.995f)
                fail("a sample is not finite or beyond the ceiling");
        fs::remove(output);
    } catch (const OfflineProcessor::Error& error) {
        const std::string message = error.what();
        if (message.empty() || message.find('\n') != std::string::npos)
            fail("the error is not one line");
    }
    ::close(memory);
    if (!fs::is_empty(folder))
        fail("a file was left behind");
    return 0;
}
