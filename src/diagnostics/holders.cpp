#include "diagnostics/holders.h"

#include <fstream>
#include <system_error>

std::vector<Holder> find_holders(
    const std::function<bool(const std::filesystem::path& descriptors)>& holds) {
    namespace fs = std::filesystem;
    std::vector<Holder> holders;
    std::error_code error;
    fs::directory_iterator process("/proc", error);
    for (; !error && process != fs::directory_iterator(); process.increment(error)) {
        if (holds(process->path() / "fd")) {
            Holder holder{.name = {}, .pid = process->path().filename()};
            std::getline(std::ifstream(process->path() / "comm") >> std::ws, holder.name);
            holders.push_back(std::move(holder));
        }
    }
    return holders;
}
