#include "Platform/LoadableModule.h"

#include <dlfcn.h>

#include <system_error>

namespace sorva {

namespace {

std::string loaderError(const std::string& fallback)
{
    const char* reason = ::dlerror();
    return reason ? reason : fallback;
}

} // namespace

std::unique_ptr<LoadableModule> LoadableModule::open(const std::filesystem::path& path, std::string& error)
{
    void* handle = ::dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (!handle) {
        error = loaderError("cannot load " + path.string());
        return nullptr;
    }
    return std::unique_ptr<LoadableModule>(new LoadableModule(handle));
}

LoadableModule::LoadableModule(void* handle)
    : handle(handle)
{
}

void* LoadableModule::symbol(const char* name, std::string& error) const
{
    ::dlerror();
    void* address = ::dlsym(handle, name);
    if (!address)
        error = loaderError(std::string("no symbol ") + name);
    return address;
}

std::filesystem::path LoadableModule::executableDirectory()
{
    std::error_code ec;
    const std::filesystem::path program = std::filesystem::read_symlink("/proc/self/exe", ec);
    return ec ? std::filesystem::path() : program.parent_path();
}

} // namespace sorva
