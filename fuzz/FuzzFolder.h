// What the fuzz targets share: a private scratch folder for one fuzz process,
// removed at exit, with the log pointed into it so that fuzzing never touches
// the user's log; and the abort that tells libFuzzer an invariant broke.
#pragma once

#include "Audio/EQLog.h"

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

namespace sorva::fuzzing {

inline const std::filesystem::path& scratchFolder()
{
    static const std::filesystem::path folder = [] {
        std::string pattern = (std::filesystem::temp_directory_path() / "sorva-fuzz-XXXXXX").string();
        if (!::mkdtemp(pattern.data()))
            std::abort();
        std::filesystem::path made = std::filesystem::absolute(pattern);
        EQLog::setDirectoryForTesting(made / "log");
        std::atexit([] { std::error_code ignored; std::filesystem::remove_all(scratchFolder(), ignored); });
        return made;
    }();
    return folder;
}

[[noreturn]] inline void fail(const char* target, const char* what)
{
    std::fprintf(stderr, "%s invariant broken: %s\n", target, what);
    std::abort();
}

} // namespace sorva::fuzzing
