#include "local/network/http_transfer.h"

#include <atomic>
#include <utility>

#include "common/module.h"

namespace local_core {

namespace {

// Null, with why in *error, where it can't be loaded.
const HttpModule* http_module(std::string* error) {
    static std::atomic<const HttpModule*> module = nullptr;
    if (module == nullptr) {
        module = static_cast<const HttpModule*>(
            nuvio::find_in_module(NUV_HTTP_MODULE, kHttpModuleName, error));
    }
    return module;
}

}  // namespace

std::unique_ptr<HttpTransfer> HttpTransfer::make(Handlers handlers,
                                                 std::shared_ptr<Connections> connections,
                                                 std::string* error) {
    const HttpModule* const module = http_module(error);
    return module != nullptr ? module->make_transfer(std::move(handlers), std::move(connections))
                             : nullptr;
}

std::shared_ptr<HttpTransfer::Connections> HttpTransfer::make_connections() {
    std::string ignored;
    const HttpModule* const module = http_module(&ignored);
    return module != nullptr ? module->make_connections() : nullptr;
}

}  // namespace local_core
