#include "reader/inside/sound/foreign_sound.h"

#include <dlfcn.h>

#include <filesystem>
#include <system_error>

namespace nuvio::reader {

namespace {

// Set once, before the walls.
bool has_been_told = false;
void* module = nullptr;
OpenForeignSound* module_function = nullptr;

// Where a build has it, else where libraries are.
void load_module() {
    std::error_code error;
    const auto program = std::filesystem::read_symlink("/proc/self/exe", error);
    const auto beside = program.parent_path().parent_path() / "lib" / kForeignSoundModule;
    module = dlopen(beside.c_str(), RTLD_NOW | RTLD_LOCAL);
    module = module != nullptr ? module : dlopen(kForeignSoundModule, RTLD_NOW | RTLD_LOCAL);
}

}  // namespace

void load_foreign_sound() {
    has_been_told = true;
    load_module();
    void* const symbol = module != nullptr ? dlsym(module, kForeignSoundFunction) : nullptr;
    module_function = reinterpret_cast<OpenForeignSound*>(symbol);
}

bool is_foreign_reader() {
    return has_been_told;
}

std::unique_ptr<ForeignSound> open_foreign_sound(Input& input, std::string* error) {
    if (module_function == nullptr) {
        *error = "not a format that is read here (nuvio-connect-core-ffmpeg reads more)";
        return nullptr;
    }
    return std::unique_ptr<ForeignSound>(module_function(input, error));
}

}  // namespace nuvio::reader
