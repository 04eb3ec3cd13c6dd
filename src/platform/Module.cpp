#include "platform/Module.h"

#include <dlfcn.h>
#include <string>

namespace almanor::module {

namespace {

std::filesystem::path programFolder() {
    std::error_code ec;
    auto self = std::filesystem::read_symlink("/proc/self/exe", ec);
    return ec ? std::filesystem::path() : self.parent_path();
}

} // namespace

std::filesystem::path locate(std::string_view fileName, std::string_view installedDir) {
    const auto folder = programFolder();
    std::error_code ec;
    for (const auto& candidate :
         {folder / fileName, (folder / installedDir / fileName).lexically_normal()}) {
        if (!folder.empty() && std::filesystem::is_regular_file(candidate, ec)) {
            return candidate;
        }
    }
    throw ModuleError(std::string(fileName) + " is not installed beside " + folder.string());
}

std::filesystem::path besideThisLibrary(std::string_view fileName) {
    Dl_info info{};
    if (::dladdr(reinterpret_cast<void*>(&programFolder), &info) == 0 || info.dli_fname == nullptr)
        throw ModuleError("cannot tell where " + std::string(fileName) + " is installed");
    return std::filesystem::path(info.dli_fname).parent_path() / fileName;
}

void* load(const std::filesystem::path& file, const char* entryPoint) {
    // Never closed: what it made (windows, services) runs its code until the process ends. Bound
    // now, so that a module that does not fit this program fails here with the name it lacks.
    void* loaded = ::dlopen(file.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (loaded == nullptr) {
        const char* why = ::dlerror();
        throw ModuleError("cannot load " + file.string() + ": " + (why ? why : "unknown error"));
    }
    void* symbol = ::dlsym(loaded, entryPoint);
    if (symbol == nullptr) {
        throw ModuleError(file.string() + " has no " + entryPoint);
    }
    return symbol;
}

} // namespace almanor::module
