#include "controller/session/session_store.h"

#include <ctime>
#include <system_error>

#include "common/files/files.h"
#include "common/json/json.h"
#include "controller/base/log.h"
#include "controller/base/token.h"

namespace nuvio::controller {

namespace {

constexpr size_t kMaxSessions = 64;
constexpr size_t kMaxFile = size_t{1} << 20U;

}  // namespace

SessionStore::SessionStore(std::string path) : m_path(std::move(path)) {
    const JsonPtr document = parse_json(read_file(m_path, kMaxFile).text);
    const cJSON* entry = nullptr;
    cJSON_ArrayForEach(entry, document.get()) {
        const std::string device = text_member(entry, "device").value_or("");
        Session session{text_member(entry, "id").value_or(""),
                        text_member(entry, "token").value_or(""),
                        number_member(entry, "expires").value_or(0),
                        {},
                        text_member(entry, "here").value_or("")};
        if (!device.empty() && !session.token.empty() && m_sessions.size() < kMaxSessions) {
            m_sessions[device] = std::move(session);
        }
    }
}

const Session& SessionStore::of(const std::string& device) const {
    static const Session kNone;
    const auto found = m_sessions.find(device);
    return found != m_sessions.end() ? found->second : kNone;
}

void SessionStore::set(const std::string& device, const Session& session) {
    m_sessions.erase(device);
    if (!session.id.empty()) {
        if (m_sessions.size() >= kMaxSessions) {
            m_sessions.erase(m_sessions.begin());
        }
        m_sessions[device] = session;
    }
}

std::string SessionStore::device_of_token(std::string_view token) const {
    std::string found;
    for (const auto& [device, session] : m_sessions) {
        if (equals_secret(session.token, token) && session.expires > std::time(nullptr)) {
            found = device;
        }
    }
    return found;
}

std::string SessionStore::text() const {
    JsonPtr document = new_array();
    for (const auto& [device, session] : m_sessions) {
        JsonPtr entry = new_object();
        add(entry.get(), "device", device);
        add(entry.get(), "id", session.id);
        add(entry.get(), "token", session.token);
        add(entry.get(), "expires", session.expires);
        add(entry.get(), "here", session.here);
        append(document.get(), std::move(entry));
    }
    return print_json(document.get());
}

void SessionStore::write(const std::string& text) const {
    const int error = replace_file(m_path, text, 0600);
    if (error != 0) {
        log_line(LogLevel::error, m_path + ": " + std::generic_category().message(error));
    }
}

}  // namespace nuvio::controller
