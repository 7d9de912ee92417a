#include "controller/session/session_store.h"

#include <algorithm>
#include <ctime>

#include "common/files/files.h"
#include "common/json/json.h"
#include "controller/base/token.h"

namespace nuvio::controller {

namespace {

constexpr size_t kMaxSessions = 64;
constexpr size_t kMaxWishes = 128;
// What was due while the controller was away is made up for, but not the next day.
constexpr int64_t kTooLateSeconds = 3600;
constexpr size_t kMaxSessionsFile = size_t{1} << 20U;
const Session kNone;
const Wishes kNoWishes;

}  // namespace

SessionStore::SessionStore(std::string path) : m_path(std::move(path)) {
    const JsonPtr document = parse_json(read_file(m_path, kMaxSessionsFile).text);
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
            take_wishes(session.device, entry);
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

const Wishes& SessionStore::wishes_of(const std::string& device) const {
    const auto found = m_wishes.find(device);
    return found != m_wishes.end() ? found->second : kNoWishes;
}

// Null: there is no room for more.
Wishes* SessionStore::wishes_for(const std::string& device) {
    if (m_wishes.size() >= kMaxWishes && !m_wishes.contains(device)) {
        std::erase_if(m_wishes, [](const auto& entry) {
            return entry.second.name.empty() && !entry.second.sleep;
        });
    }
    const bool has_room = m_wishes.size() < kMaxWishes || m_wishes.contains(device);
    return has_room ? &m_wishes[device] : nullptr;
}

bool SessionStore::set_name(const std::string& device, const std::string& name) {
    Wishes* const wishes = wishes_for(device);
    if (wishes != nullptr) {
        wishes->name = name;
    }
    return wishes != nullptr;
}

bool SessionStore::set_sleep(const std::string& device, const std::optional<Sleep>& sleep) {
    Wishes* const wishes = wishes_for(device);
    if (wishes != nullptr) {
        wishes->sleep = sleep;
    }
    return wishes != nullptr;
}

void SessionStore::take_wishes(const std::string& device, const cJSON* entry) {
    set_name(device, text_member(entry, "name").value_or(""));
    const Sleep sleep{.at = number_member(entry, "sleep_at").value_or(0),
                      .item = number_member(entry, "sleep_after")};
    if (sleep.item || sleep.at > std::time(nullptr) - kTooLateSeconds) {
        set_sleep(device, sleep);
    }
}

// Wishes stand behind the sessions, as entries without an id.
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
    for (const auto& [device, wishes] : m_wishes) {
        if (wishes.name.empty() && !wishes.sleep) {
            continue;
        }
        JsonPtr entry = new_object();
        add(entry.get(), "device", device);
        add(entry.get(), "name", wishes.name);
        if (wishes.sleep && wishes.sleep->item) {
            add(entry.get(), "sleep_after", *wishes.sleep->item);
        } else if (wishes.sleep) {
            add(entry.get(), "sleep_at", wishes.sleep->at);
        }
        append(document.get(), std::move(entry));
    }
    return print_json(document.get());
}

}  // namespace nuvio::controller
