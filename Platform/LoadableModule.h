// A shared object loaded at run time (dlopen), for the parts of the program
// that only some runs need: the tray application's module, with the Qt GUI
// libraries it brings, is loaded only when there is a display to show it on,
// so that the headless program and `sorva process` start without them.
//
// Threads: any; not for the audio thread (loading reads files).
#pragma once

#include <filesystem>
#include <memory>
#include <string>

namespace sorva {

class LoadableModule {
public:
    // Loads the module, resolving every symbol now; nullptr with the loader's
    // reason in `error` when it is missing or cannot be loaded. A loaded
    // module stays mapped until the process ends: its code may still run from
    // the exit handlers and static destructors it registered.
    static std::unique_ptr<LoadableModule> open(const std::filesystem::path& path, std::string& error);
    LoadableModule(const LoadableModule&) = delete;
    LoadableModule& operator=(const LoadableModule&) = delete;

    // The address of an exported symbol, or nullptr with the reason in `error`.
    void* symbol(const char* name, std::string& error) const;

    // The folder of the running program (/proc/self/exe), empty when unknown.
    static std::filesystem::path executableDirectory();

private:
    explicit LoadableModule(void* handle);
    void* handle;
};

} // namespace sorva
