#include "App/CommandLine.h"

#include "Models/EQPresets.h"

#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>

namespace sorva {

namespace {

// A whole argument as a finite decimal number; strtod alone would accept
// leading spaces, trailing garbage, "nan" and "inf".
bool parseNumber(const std::string& text, double& value)
{
    if (text.empty() || std::isspace(static_cast<unsigned char>(text.front())))
        return false;
    errno = 0;
    char* end = nullptr;
    value = std::strtod(text.c_str(), &end);
    return end == text.c_str() + text.size() && errno != ERANGE && std::isfinite(value);
}

bool parseGainList(const std::string& text, std::vector<double>& gains)
{
    gains.clear();
    size_t start = 0;
    for (;;) {
        const size_t comma = text.find(',', start);
        double gain = 0;
        if (!parseNumber(text.substr(start, comma == std::string::npos ? std::string::npos : comma - start), gain))
            return false;
        gains.push_back(gain);
        if (comma == std::string::npos)
            return true;
        start = comma + 1;
    }
}

std::string formatDB(double dB)
{
    char text[32];
    std::snprintf(text, sizeof text, "%g", dB);
    return text;
}

// 30 Hz, 2 kHz, 12.5 kHz.
std::string formatHz(double hertz)
{
    char text[32];
    if (hertz >= 1000)
        std::snprintf(text, sizeof text, "%g kHz", hertz / 1000);
    else
        std::snprintf(text, sizeof text, "%g Hz", hertz);
    return text;
}

} // namespace

CommandLine CommandLine::parse(const std::vector<std::string>& arguments)
{
    CommandLine line;
    for (size_t i = 0; i < arguments.size(); ++i) {
        const std::string& argument = arguments[i];
        if (argument == "--help" || argument == "-h") {
            line.action = Action::help;
            return line;
        }
        if (argument == "--version" || argument == "-V") {
            line.action = Action::version;
            return line;
        }
        if (argument == "--headless") {
            line.headless = true;
            continue;
        }
        if (argument == "--simulate") {
            line.simulate = true;
            continue;
        }
        if (argument == "process") {
            line.action = Action::process;
            line.parseProcess(arguments, i + 1);
            return line;
        }
        if (!argument.empty() && argument.front() == '-')
            line.error = "unknown option '" + argument + "' (see 'sorva --help')";
        else
            line.error = "unknown command '" + argument + "' (see 'sorva --help')";
        return line;
    }
    return line;
}

void CommandLine::parseProcess(const std::vector<std::string>& arguments, size_t first)
{
    std::vector<std::string> files;
    bool optionsEnded = false;
    for (size_t i = first; i < arguments.size(); ++i) {
        const std::string& argument = arguments[i];
        if (optionsEnded || argument.empty() || argument.front() != '-' || argument == "-") {
            files.push_back(argument);
            continue;
        }
        if (argument == "--") {
            optionsEnded = true;
            continue;
        }
        if (argument == "--help" || argument == "-h") {
            action = Action::processHelp;
            error.clear();
            return;
        }

        // Options that take a value, as "--name value" or "--name=value".
        std::string name = argument;
        std::string value;
        bool hasValue = false;
        if (const size_t equals = argument.find('='); equals != std::string::npos) {
            name = argument.substr(0, equals);
            value = argument.substr(equals + 1);
            hasValue = true;
        }
        if (name != "--preset" && name != "--gains" && name != "--output-gain") {
            if (error.empty())
                error = "unknown option '" + name + "' for process (see 'sorva process --help')";
            continue;
        }
        if (!hasValue) {
            if (i + 1 >= arguments.size()) {
                if (error.empty())
                    error = "option " + name + " needs a value (see 'sorva process --help')";
                continue;
            }
            value = arguments[++i];
        }

        if (name == "--preset") {
            processOptions.preset = value;
        } else if (name == "--gains") {
            std::vector<double> gains;
            if (parseGainList(value, gains))
                processOptions.gains = gains;
            else if (error.empty())
                error = "--gains needs finite numbers in dB separated by commas, like 6,0,-3,0,2 (got '" + value + "')";
        } else {
            double gain = 0;
            if (parseNumber(value, gain))
                processOptions.outputGain = gain;
            else if (error.empty())
                error = "--output-gain needs a finite number in dB (got '" + value + "')";
        }
    }
    // A later --help still wins over an earlier mistake, so the loop above
    // runs to the end before the file count is judged.
    if (!error.empty())
        return;
    if (files.size() < 2)
        error = "process needs an input file and an output file (see 'sorva process --help')";
    else if (files.size() > 2)
        error = "process takes one input file and one output file; unexpected '" + files[2] + "'";
    else {
        input = files[0];
        output = files[1];
    }
}

std::string CommandLine::usage()
{
    return "usage: sorva [--headless] [--simulate]\n"
           "       sorva [--help | --version]\n"
           "       sorva process INPUT OUTPUT [--preset NAME] [--gains G1,...] [--output-gain DB]\n"
           "\n"
           "SORVA equalizes what this computer plays: five peaking filters, an automatic\n"
           "makeup gain, your output gain and a peak limiter.\n"
           "\n"
           "Without a command it runs until Quit, Ctrl-C (SIGINT) or SIGTERM, switching on\n"
           "if you left it on, or always when SORVA_AUTOSTART=1. Under a display it lives\n"
           "in the system tray (its panel opens as a window where there is no tray), and\n"
           "launching it again opens the running one's panel.\n"
           "\n"
           "Commands:\n"
           "  process        equalize an audio file (see 'sorva process --help')\n"
           "\n"
           "Options:\n"
           "  --headless     run without a panel (also where no display is available)\n"
           "  --simulate     use a simulated audio system with a generated signal\n"
           "  -h, --help     show this help\n"
           "  -V, --version  show the version\n";
}

std::string CommandLine::processUsage(const EQConfig& base)
{
    std::string presets;
    for (const EQPreset& preset : EQPresets::all())
        presets += (presets.empty() ? "" : ", ") + preset.name;
    std::string bands;
    std::string gains;
    std::string example;
    size_t position = 0;
    for (const EQBand& band : base.bands) {
        bands += (bands.empty() ? "" : ", ") + band.label + " " + formatHz(band.frequency);
        gains += (gains.empty() ? "" : ", ") + formatDB(band.gain);
        example += (example.empty() ? "G" : ",G") + std::to_string(++position);
    }
    const std::string count = std::to_string(base.bands.size());

    return "usage: sorva process INPUT OUTPUT [options]\n"
           "\n"
           "Runs INPUT (any format libsndfile reads: WAV, FLAC, Ogg, AIFF, ...) through\n"
           "the equalizer, makeup gain, output gain and limiter, at the file's own sample\n"
           "rate, and writes OUTPUT as a 32-bit float WAV with the same rate and channels.\n"
           "The first two channels are equalized; further channels only pass the gain\n"
           "stage and the limiter. OUTPUT appears only once it is complete.\n"
           "\n"
           "Options:\n"
           "  --preset NAME      start from a preset: " + presets + " (any case)\n"
           "  --gains " + example + "\n"
           "                     the " + count + " band gains in dB, each clamped to -24...+24;\n"
           "                     they replace the preset's. The bands:\n"
           "                     " + bands + "\n"
           "  --output-gain DB   output gain in dB, clamped to -6...+6; replaces the preset's\n"
           "  -h, --help         show this help\n"
           "\n"
           "Without options the gains are " + gains + " dB and the output gain " + formatDB(base.outputGain) + " dB.\n"
           "\n"
           "Example:\n"
           "  sorva process song.flac song-rock.wav --preset rock --output-gain -1\n";
}

} // namespace sorva
