// One HTTP request at a time, made by libcurl without blocking. Used by one thread, but for wake().
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace local_core {

class HttpTransfer {
  public:
    struct Handlers {
        // Each line of the head, without its end; the last one is empty. False ends the request.
        std::function<bool(std::string_view line)> on_line;
        enum class Answer { taken, no_room, stop };
        // `no_room`: the same bytes come again after resume().
        std::function<Answer(std::string_view bytes)> on_body;
    };
    struct Request {
        std::string url;
        std::vector<std::string> lines;  // of the head; none of them goes to a proxy
        uint64_t from = 0;               // the first byte asked for, to the end
        std::chrono::seconds stalled_after;
        std::string authorities;  // a file; empty: the system's
    };
    struct Outcome {
        bool is_complete;  // all that was announced came
        bool is_final;     // another try can't mend it
        std::string error;
    };

    // Connections that are kept for the next transfer which is given them. Any thread.
    class Connections;
    static std::shared_ptr<Connections> make_connections();

    // None of the handlers is called but from perform() and resume().
    explicit HttpTransfer(Handlers handlers, std::shared_ptr<Connections> connections = nullptr);
    // Does not wait, not even for a name that is being looked up. What looks it up lasts until the
    // system gives up; of so many that were left behind another one has to wait, see start().
    ~HttpTransfer();
    HttpTransfer(const HttpTransfer&) = delete;
    HttpTransfer& operator=(const HttpTransfer&) = delete;

    // Null, or why nothing is active: libcurl takes it not, or it has a name while a dozen lookups
    // of transfers that are gone still wait for their name servers.
    const char* start(const Request& request);
    void stop();
    bool is_active() const { return m_is_active; }
    void resume();
    // Moves what can be moved now; how the request ended, when it did.
    std::optional<Outcome> perform();
    // Until something can be moved, wake(), or the time is over.
    void wait(std::chrono::steady_clock::duration longest);
    // From any thread.
    void wake();

  private:
    struct Handles;
    class AbandonedLookups;

    static size_t on_header(char* bytes, size_t, size_t size, void* self);
    static size_t on_body(char* bytes, size_t, size_t size, void* self);

    Handlers m_handlers;
    const std::shared_ptr<Connections> m_connections;
    std::unique_ptr<Handles> m_handles;
    bool m_is_active = false;
};

}  // namespace local_core
