// Configuration items and identity.
#include "platform/Environment.h"

#include "configuration/identity.h"
#include "host.h"

using nuvio::host::Host;

void GetEnvItemByName(const char* key, std::string& value) {
    value = key == nullptr ? std::string() : Host::instance().settings().get(key);
}

void GetEnvItemByName(const char* key, char* value) {
    std::string text;
    GetEnvItemByName(key, text);
    value[text.copy(value, kEnvItemBufferSize - 1)] = '\0';
}

bool getFriendlyName(std::string& value) {
    value = nuvio::host::friendly_name(Host::instance().settings());
    return !value.empty();
}

bool getManufacturer(std::string& value) {
    value = nuvio::host::manufacturer(Host::instance().settings());
    return !value.empty();
}

bool getModel(std::string& value) {
    value = nuvio::host::model(Host::instance().settings());
    return !value.empty();
}
