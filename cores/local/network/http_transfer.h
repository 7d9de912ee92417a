// One HTTP request at a time, without blocking. Used by one thread, but for wake().
//
// Who speaks HTTP is a process of its own, the fetcher (fetcher/): libcurl and the libraries that
// it needs in turn take memory, and strangers' heads and TLS are taken apart, there alone. One
// serves all transfers. It starts with the first one and ends when no transfer and no Connections
// are left; one that is lost costs its transfers their connections.
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

    // As long as one lives, the fetcher stays, and what connections it has for the transfers after
    // this one. Any thread; none of it waits.
    class Connections {
      public:
        virtual ~Connections() = default;
        Connections(const Connections&) = delete;
        Connections& operator=(const Connections&) = delete;

      protected:
        Connections() = default;
    };
    // Starts nothing.
    static std::shared_ptr<Connections> keep_connections();

    // Null, with why in *error, where the fetcher can't be started or there is no descriptor. Waits
    // for the disk. None of the handlers is called but from perform().
    static std::unique_ptr<HttpTransfer> make(Handlers handlers, std::string* error);

    // Does not wait, not even for a name that is being looked up.
    virtual ~HttpTransfer() = default;
    HttpTransfer(const HttpTransfer&) = delete;
    HttpTransfer& operator=(const HttpTransfer&) = delete;

    // False, with why in *error: nothing is active. May start another fetcher.
    virtual bool start(const Request& request, std::string* error) = 0;
    virtual void stop() = 0;
    virtual bool is_active() const = 0;
    virtual void resume() = 0;
    // Moves what can be moved now; how the request ended, when it did.
    virtual std::optional<Outcome> perform() = 0;
    // Until something can be moved, wake(), or the time is over.
    virtual void wait(std::chrono::steady_clock::duration longest) = 0;
    // From any thread.
    virtual void wake() = 0;

  protected:
    HttpTransfer() = default;
};

}  // namespace local_core
