// Configuration items and identity, and what the service tells of itself and the core of the sound.
#include "platform/Environment.h"

#include "common/sound_note.h"
#include "configuration/identity.h"
#include "configuration/settings_edit.h"
#include "device/device_model.h"
#include "host.h"
#include "platform/ServiceReport.h"
#include "platform/SettingsFile.h"

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

bool ChangeSettings(const SettingsChange& change, std::string& told) {
    const bool changed = nuvio::host::change_settings(change.items, change.alsaConfiguration, told);
    if (changed) {
        Host::instance().reload_settings();
    }
    return changed;
}

void OfferServiceReport(ServiceReport report) {
    nuvio::host::set_service_report(report);
}

void nuvio_note_sound(const char* changed) {
    nuvio::host::set_sound_note(changed);
}

void nuvio_note_played(const char* title, const char* verified) {
    nuvio::host::set_played_note({title, verified});
}
