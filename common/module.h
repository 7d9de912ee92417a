// The project's own libraries that a program loads when it needs them: what they need in turn
// takes no memory before. They come from the program's build, and stay for good.
#pragma once

#include <dlfcn.h>

#include <filesystem>
#include <string>
#include <system_error>

namespace nuvio {

// Where a build has this one of its libraries, by the program's own place.
inline std::filesystem::path library_of_build(const char* library) {
    std::error_code ignored;
    const auto program = std::filesystem::read_symlink("/proc/self/exe", ignored);
    return program.parent_path().parent_path() / "lib" / library;
}

// What the module exports under this name; null, with why in *error, where there is no such module.
// Any thread that may wait for a disk. From where a build has it, else from where libraries are.
inline void* find_in_module(const char* module, const char* name, std::string* error) {
    // Each function of a library that it needs is looked up when it is first called.
    void* handle = dlopen(library_of_build(module).c_str(), RTLD_LAZY | RTLD_LOCAL);
    handle = handle != nullptr ? handle : dlopen(module, RTLD_LAZY | RTLD_LOCAL);
    void* const found = handle != nullptr ? dlsym(handle, name) : nullptr;
    if (found == nullptr) {
        const char* const why = dlerror();
        *error = why != nullptr ? why : "nothing in it";
    }
    return found;
}

}  // namespace nuvio
