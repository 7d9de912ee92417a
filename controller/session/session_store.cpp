#include "controller/session/session_store.h"

#include <algorithm>
#include <ctime>
#include <system_error>

#include "common/files/files.h"
#include "common/json/json.h"
#include "controller/base/log.h"
#include "controller/base/token.h"

namespace nuvio::controller {

namespace {

constexpr size_t kMaxSessions = 64;
constexpr size_t kMaxNames = 128;
constexpr size_t kMaxFile = size_t{1} << 20U;
const Session kNone;
const std::string kNoName;

}  // namespace

SessionStore::SessionStore(std::string path) : m_path(std::move(path)) {
    const JsonPtr document = parse_json(read_file(m_path, kMaxFile).text);
    const cJSON* entry = nullptr;
    cJSON_ArrayForEach(entry, document.get()) {
        Session session{text_member(entry, "device").value_or(""),
                        text_member(entry, "id").value_or(""),
                        text_member(entry, "token").value_or(""),
                        number_member(entry, "expires").value_or(0),
                        {},
                        text_member(entry, "here").value_or("")};
        if (!session.device.empty() && !session.id.empty() && !session.token.empty() &&
            m_sessions.size() < kMaxSessions) {
            m_sessions.push_back(std::move(session));
        } else if (session.id.empty()) {
            set_name(session.device, text_member(entry, "name").value_or(""));
        }
    }
}

const Session& SessionStore::of(const std::string& device) const {
    const auto found = std::ranges::find_if(m_sessions, [&](const Session& session) {
        return session.device == device && session.is_joined;
    });
    return found != m_sessions.end() ? *found : kNone;
}

bool SessionStore::has(const std::string& device) const {
    return std::ranges::any_of(m_sessions, [&](const Session& session) {
        return session.device == device && !session.is_offered;
    });
}

bool SessionStore::has(const std::string& device, const std::string& id) const {
    return std::ranges::any_of(m_sessions, [&](const Session& session) {
        return session.device == device && session.id == id;
    });
}

const Session& SessionStore::of_token(std::string_view token) const {
    const Session* found = &kNone;
    for (const Session& session : m_sessions) {
        if (equals_secret(session.token, token) && session.expires > std::time(nullptr)) {
            found = &session;
        }
    }
    return *found;
}

void SessionStore::offer(const Session& session) {
    if (m_sessions.size() >= kMaxSessions) {
        m_sessions.erase(m_sessions.begin());
    }
    m_sessions.push_back(session);
}

void SessionStore::accept(const std::string& id) {
    const auto accepted = std::ranges::find(m_sessions, id, &Session::id);
    if (accepted != m_sessions.end()) {
        accepted->is_offered = false;
        const std::string device = accepted->device;
        std::erase_if(m_sessions, [&](const Session& session) {
            return session.device == device && session.id != id && !session.is_offered &&
                   !session.is_joined;
        });
    }
}

void SessionStore::join(const std::string& id) {
    const auto joined = std::ranges::find(m_sessions, id, &Session::id);
    if (joined != m_sessions.end()) {
        joined->is_offered = false;
        joined->is_joined = true;
        const std::string device = joined->device;
        std::erase_if(m_sessions, [&](const Session& session) {
            return session.device == device && session.id != id && !session.is_offered;
        });
    }
}

bool SessionStore::end(const std::string& id) {
    return std::erase_if(m_sessions, [&](const Session& session) { return session.id == id; }) > 0;
}

const std::string& SessionStore::name_of(const std::string& device) const {
    const auto found = m_names.find(device);
    return found != m_names.end() ? found->second : kNoName;
}

void SessionStore::set_name(const std::string& device, const std::string& name) {
    m_names.erase(device);
    if (!name.empty() && !device.empty() && m_names.size() < kMaxNames) {
        m_names[device] = name;
    }
}

// Names stand behind the sessions, as entries without an id.
std::string SessionStore::text() const {
    JsonPtr document = new_array();
    for (const Session& session : m_sessions) {
        if (session.is_offered) {
            continue;
        }
        JsonPtr entry = new_object();
        add(entry.get(), "device", session.device);
        add(entry.get(), "id", session.id);
        add(entry.get(), "token", session.token);
        add(entry.get(), "expires", session.expires);
        add(entry.get(), "here", session.here);
        append(document.get(), std::move(entry));
    }
    for (const auto& [device, name] : m_names) {
        JsonPtr entry = new_object();
        add(entry.get(), "device", device);
        add(entry.get(), "name", name);
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
