#include "controller/session/session_store.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fstream>
#include <iterator>

#include "common/unique_fd.h"
#include "controller/base/json.h"
#include "controller/base/log.h"
#include "controller/base/token.h"

namespace nuvio::controller {

namespace {

constexpr size_t kMaxSessions = 64;

}  // namespace

SessionStore::SessionStore(std::string path) : m_path(std::move(path)) {
    std::ifstream file(m_path, std::ios::binary);
    const std::string text{std::istreambuf_iterator<char>(file), {}};
    const JsonPtr document = parse_json(text);
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

void SessionStore::set(const std::string& device, const Session& session) {
    m_sessions.erase(device);
    if (!session.id.empty()) {
        if (m_sessions.size() >= kMaxSessions) {
            m_sessions.erase(m_sessions.begin());
        }
        m_sessions[device] = session;
    }
    write();
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

// Either the old or the new file is there at any moment.
void SessionStore::write() const {
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
    const std::string text = print_json(document.get());
    const std::string beside = m_path + ".new";
    UniqueFd file(open(beside.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
    const bool is_written =
        file && ::write(file.get(), text.data(), text.size()) == static_cast<ssize_t>(text.size());
    file.reset();
    if (!is_written || rename(beside.c_str(), m_path.c_str()) != 0) {
        log_line(LogLevel::error, m_path + ": " + std::strerror(errno));
    }
}

}  // namespace nuvio::controller
