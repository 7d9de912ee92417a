// One HTTP request at a time, without blocking. Used by one thread, but for wake(). What makes it,
// curl_transfer.cpp, is a module: libcurl and the libraries that it needs in turn are loaded with
// the first one.
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

    // What is kept for the next transfer that is given it. Any thread.
    class Connections {
      public:
        virtual ~Connections() = default;
        Connections(const Connections&) = delete;
        Connections& operator=(const Connections&) = delete;

      protected:
        Connections() = default;
    };

    // Null, with why in *error, where the module can't be loaded. Waits for the disk. None of the
    // handlers is called but from perform() and resume(). `connections`: of make_connections();
    // null: its own.
    static std::unique_ptr<HttpTransfer> make(Handlers handlers,
                                              std::shared_ptr<Connections> connections,
                                              std::string* error);
    // Null where the module can't be loaded.
    static std::shared_ptr<Connections> make_connections();

    // Does not wait, not even for a name that is being looked up. What looks it up lasts until the
    // system gives up; of so many that were left behind another one has to wait, see start().
    virtual ~HttpTransfer() = default;
    HttpTransfer(const HttpTransfer&) = delete;
    HttpTransfer& operator=(const HttpTransfer&) = delete;

    // Null, or why nothing is active: libcurl takes it not, or it has a name while a dozen lookups
    // of transfers that are gone still wait for their name servers.
    virtual const char* start(const Request& request) = 0;
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

// What the module exports, under this name.
struct HttpModule {
    std::unique_ptr<HttpTransfer> (*make_transfer)(
        HttpTransfer::Handlers handlers, std::shared_ptr<HttpTransfer::Connections> connections);
    std::shared_ptr<HttpTransfer::Connections> (*make_connections)();
};
inline constexpr char kHttpModuleName[] = "kHttpModule";

}  // namespace local_core
