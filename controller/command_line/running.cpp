#include "controller/command_line/running.h"

#include "common/environment.h"
#include "common/percent_encoding.h"
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

namespace {

std::string encoded(const std::string& one) {
    std::string name = percent_encode(one);
    for (size_t at = name.find('/'); at != std::string::npos; at = name.find('/', at)) {
        name.replace(at, 1, "%2F");
    }
    return name;
}

}  // namespace

std::string path_below(const std::string& kind, const std::string& one, const char* what) {
    return kind + "/" + encoded(one) + "/" + what;
}

std::string device_path(const std::string& device, const char* what) {
    return path_below("devices", device, what);
}

void command_device(const std::string& device, const char* command, JsonPtr arguments) {
    add(arguments.get(), "command", command);
    ask_controller("POST", device_path(device, "command"), print_json(arguments.get()));
}

JsonPtr ask_state(const std::string& device, int64_t version) {
    return ask_controller("GET",
                          "state?after=" + std::to_string(version) + "&device=" + encoded(device));
}

const cJSON* device_in(const cJSON* state) {
    return cJSON_GetArrayItem(member(state, "devices"), 0);
}

std::string shown(const cJSON* object, const char* key) {
    return printable(text_member(object, key).value_or(""));
}

}  // namespace nuvio::controller
