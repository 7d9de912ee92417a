// The sessions that were handed out, kept in a file, so that devices find their way back to a
// controller that was started again: to their content, and to their channel. And what people want
// of their devices whatever they play: how they are called here, and when they sleep.
//
// Threads  its owner sees to locking; what waits for the disk says so.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "common/json/json.h"

namespace nuvio::controller {

struct Session {
    std::string device;
    std::string id;
    std::string token;        // for content and channel
    int64_t expires = 0;      // seconds since 1970
    std::string playlist;     // JSPF; not kept in the file
    std::string here;         // how the device reaches this controller
    bool is_offered = false;  // the device has not answered yet; not kept in the file
    bool is_joined = true;    // it is what the device plays; not kept in the file
};

// When a device is to be paused.
struct Sleep {
    int64_t at = 0;                    // seconds since 1970, without an item
    std::optional<int64_t> item = {};  // at its end
};

struct Wishes {
    std::string name = {};  // empty: what it calls itself
    std::optional<Sleep> sleep = {};
};

class SessionStore {
  public:
    // Reads `path`, and waits for the disk; what can't be read there is as nothing.
    explicit SessionStore(std::string path);

    // The one that the device has joined; one without an id: it has none.
    const Session& of(const std::string& device) const;
    // It may join another one, or has already.
    bool has(const std::string& device) const;
    bool has(const std::string& device, const std::string& id) const;
    // The one with this token that is not over, be it offered only; one without an id: none.
    const Session& of_token(std::string_view token) const;
    // Its token counts from now on, beside that of the session that the device has. At most 64
    // sessions are kept, the newest.
    void offer(const Session& session);
    // The device has answered that it will look at it: what it was offered before that, and has not
    // joined, is over.
    void accept(const std::string& id);
    // The device has joined it: its sessions before that are over.
    void join(const std::string& id);
    // It is over. False: it was already.
    bool end(const std::string& id);

    // By device; those of 128 at most.
    const std::map<std::string, Wishes>& wishes() const { return m_wishes; }
    const Wishes& wishes_of(const std::string& device) const;
    // False: there is no room for more.
    bool set_name(const std::string& device, const std::string& name);
    bool set_sleep(const std::string& device, const std::optional<Sleep>& sleep);

    const std::string& path() const { return m_path; }
    // What the file is to hold.
    std::string text() const;

  private:
    Wishes* wishes_for(const std::string& device);
    void take_wishes(const std::string& device, const cJSON* entry);

    const std::string m_path;
    std::vector<Session> m_sessions;  // the oldest first
    std::map<std::string, Wishes> m_wishes;
};

}  // namespace nuvio::controller
