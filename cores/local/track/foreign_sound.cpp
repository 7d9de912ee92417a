#include "local/track/foreign_sound.h"

#include <dlfcn.h>

namespace local_core {

namespace {

// Beside the core's own library, else where libraries are.
void* load_module() {
    Dl_info own{};
    std::string path;
    if (dladdr(reinterpret_cast<void*>(&load_module), &own) != 0 && own.dli_fname != nullptr) {
        path = own.dli_fname;
        path.replace(path.rfind('/') + 1, std::string::npos, kForeignSoundModule);
    }
    void* const module = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    return module != nullptr ? module : dlopen(kForeignSoundModule, RTLD_NOW | RTLD_LOCAL);
}

// Loaded once, for good: decoders of it may be left behind with a thread that hangs.
OpenForeignSound* module_function() {
    static OpenForeignSound* const function = [] {
        void* const module = load_module();
        void* const symbol = module != nullptr ? dlsym(module, kForeignSoundFunction) : nullptr;
        return reinterpret_cast<OpenForeignSound*>(symbol);
    }();
    return function;
}

}  // namespace

std::unique_ptr<ForeignSound> open_foreign_sound(ForeignInput& input, std::string* error) {
    OpenForeignSound* const open = module_function();
    if (open == nullptr) {
        *error = "not a format that is read here (nuvio-connect-core-ffmpeg reads more)";
        return nullptr;
    }
    return std::unique_ptr<ForeignSound>(open(input, error));
}

}  // namespace local_core
