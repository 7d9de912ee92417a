// The sessions that were handed out, kept in a file, so that devices find their way back to a
// controller that was started again: to their content, and to their channel.
//
// Threads  its owner sees to locking. Waits for the disk.
#pragma once

#include <cstdint>
#include <map>
#include <string>

namespace nuvio::controller {

struct Session {
    std::string id;
    std::string token;     // for content and channel
    int64_t expires = 0;   // seconds since 1970
    std::string playlist;  // JSPF; not kept in the file
    std::string here;      // how the device reaches this controller
};

class SessionStore {
  public:
    // Reads `path`; what can't be read there is as nothing.
    explicit SessionStore(std::string path);

    // By the device's id. At most one a device, at most 64.
    const std::map<std::string, Session>& all() const { return m_sessions; }
    // Replaces the device's session; one without an id: it has none any more. The file is the
    // old or the new one, also after a power cut; one that can't be written is logged.
    void set(const std::string& device, const Session& session);
    // Whose session has this token and is not over; empty: nobody's.
    std::string device_of_token(std::string_view token) const;

  private:
    void write() const;

    const std::string m_path;
    std::map<std::string, Session> m_sessions;
};

}  // namespace nuvio::controller
