#include "controller/command_line/running.h"

#include "common/environment.h"
#include "common/percent_encoding.h"
#include "common/text.h"
#include "common/utf8.h"
#include "controller/device/http_client.h"

namespace nuvio::controller {

namespace {

constexpr long kPatienceMs = 40'000;
constexpr size_t kMaxAnswerValues = 1'000'000;

}  // namespace

JsonPtr ask_controller(const char* method, const std::string& path, const std::string& body) {
    const std::string url = environment_text("NUVIO_CONTROLLER", "http://127.0.0.1:8090");
    const std::string password = environment_text("NUVIO_CONTROLLER_PASSWORD");
    const HttpAnswer answer = ask({.url = url + "/api/" + path,
                                   .method = method,
                                   .body = body,
                                   .user = password.empty() ? "" : "x:" + password,
                                   .timeout_ms = kPatienceMs});
    if (answer.status == 0) {
        throw Failure{"no controller at " + url + " (" + answer.failure +
                      "): is `nuvio-connect-controller serve` running?"};
    }
    // A queue of 20,000 tracks is such an answer.
    JsonPtr document = parse_json(answer.body, kMaxAnswerValues);
    if (answer.status != 200 || document == nullptr) {
        throw Failure{text_member(document.get(), "error")
                          .value_or("the controller answered " + std::to_string(answer.status))};
    }
    return document;
}

std::string device_path(const std::string& device, const char* what) {
    std::string name = percent_encode(device);
    for (size_t at = name.find('/'); at != std::string::npos; at = name.find('/', at)) {
        name.replace(at, 1, "%2F");
    }
    return "devices/" + name + "/" + what;
}

void command_device(const std::string& device, const char* command, JsonPtr arguments) {
    add(arguments.get(), "command", command);
    ask_controller("POST", device_path(device, "command"), print_json(arguments.get()));
}

const cJSON* device_in(const cJSON* state, const std::string& name) {
    const cJSON* found = nullptr;
    std::string names;
    std::string ids;  // of those that are called so
    int count = 0;
    const cJSON* device = nullptr;
    cJSON_ArrayForEach(device, member(state, "devices")) {
        const std::string own_name = text_member(device, "name").value_or("");
        const std::string id = text_member(device, "id").value_or("");
        if (equals_ignoring_case(own_name, name) || id == name) {
            ids += (found == nullptr ? "" : ", ") + id;
            found = found == nullptr ? device : found;
            count += 1;
        }
        names += (names.empty() ? "" : ", ") + own_name;
    }
    if (found == nullptr) {
        throw Failure{"no device '" + name + "'; there are: " + names};
    }
    if (count > 1) {
        throw Failure{"several devices are called '" + name + "', by id: " + ids};
    }
    return found;
}

std::string shown(const cJSON* object, const char* key) {
    return printable(text_member(object, key).value_or(""));
}

}  // namespace nuvio::controller
