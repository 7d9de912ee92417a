// The sessions that were handed out, kept in a file, so that devices find their way back to a
// controller that was started again: to their content, and to their channel.
//
// Threads  its owner sees to locking; what waits for the disk says so.
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
    // Reads `path`, and waits for the disk; what can't be read there is as nothing.
    explicit SessionStore(std::string path);

    // The device's; one without an id: it has none. At most 64 are kept.
    const Session& of(const std::string& device) const;
    // Replaces the device's session; one without an id: it has none any more.
    void set(const std::string& device, const Session& session);
    // Whose session has this token and is not over; empty: nobody's.
    std::string device_of_token(std::string_view token) const;

    // What the file is to hold, and writing it, which waits for the disk and needs no lock: the
    // file is the old or the new one, also after a power cut; one that can't be written is logged.
    std::string text() const;
    void write(const std::string& text) const;

  private:
    const std::string m_path;
    std::map<std::string, Session> m_sessions;
};

}  // namespace nuvio::controller
