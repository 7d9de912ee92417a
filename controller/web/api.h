// What the page and the command line ask and do, as JSON over HTTP.
//
// - GET /api/state, ?after=VERSION: devices and library; with `after` only once that has changed
// - GET /api/devices/ID/queue
// - POST /api/devices/ID/play: {"what": [texts], "where": "now"|"next"|"end", "start": 0}
// - POST /api/devices/ID/command: {"command": ..., its arguments}, of docs/session.md
// - POST /api/devices/ID/move: {"to": ID}
// - POST /api/devices/ID/name: {"name": TEXT}
// - POST /api/devices/ID/sleep: {"minutes": 1 to 1440; 0: no more} or {"at_end": true}
// - POST /api/devices/ID/clear: its queue, but for the current track
// - POST /api/devices/ID/undo, {"undo": number}
// - POST /api/devices/look: asks all devices how they are
// - the rest: AlarmApi, LibraryApi
//
// A POST has Content-Type: application/json. ID of a device may be its name. A failure is {"error":
// text for people} with a status: 400 the request is wrong, 404 no such thing, 409 the device can't
// or won't.
//
// Threads  any; waits for disk and devices.
#pragma once

#include <string>

#include "controller/library/library.h"
#include "controller/session/house.h"
#include "controller/web/alarm_api.h"
#include "controller/web/exchange.h"
#include "controller/web/library_api.h"
#include "controller/web/places.h"

namespace nuvio::controller {

class Api {
  public:
    // Borrows all.
    Api(Library& library, House& house, Changes& changes)
        : m_library(library),
          m_house(house),
          m_changes(changes),
          m_library_api(library, house, changes),
          m_alarm_api(library, house) {}

    // A path that begins with "/api/".
    int serve(Exchange& exchange);
    // What GET /api/state answers; also what pages are sent. `device`: of this one alone, by id.
    std::string state(uint64_t version, const std::string& device = {});

  private:
    using Handler = int (Api::*)(Exchange&, const std::string& id);
    struct Route {
        const char* method;
        const char* path;  // "*": one name, handed on as `id`
        Handler handler;
    };
    static const Route kRoutes[];

    int get_state(Exchange& exchange, const std::string& id);
    int get_queue(Exchange& exchange, const std::string& id);
    int post_play(Exchange& exchange, const std::string& device, const JsonPtr& body);
    int post_command(Exchange& exchange, const std::string& device, JsonPtr body);
    int post_move(Exchange& exchange, const std::string& device, const JsonPtr& body);
    int post_name(Exchange& exchange, const std::string& device, const JsonPtr& body);
    int post_sleep(Exchange& exchange, const std::string& device, const JsonPtr& body);
    int post_clear(Exchange& exchange, const std::string& device, const JsonPtr& body);
    int post_undo(Exchange& exchange, const std::string& device, const JsonPtr& body);
    int post_look(Exchange& exchange, const std::string& id);
    // With the body, once there is one, of the device that the path names, once it is known.
    template <auto handler>
    int of_device(Exchange& exchange, const std::string& id);
    template <auto handler>
    int library(Exchange& exchange, const std::string& id) {
        return (m_library_api.*handler)(exchange, id);
    }
    template <auto handler>
    int alarms(Exchange& exchange, const std::string& id) {
        return (m_alarm_api.*handler)(exchange, id);
    }
    static int answer(Exchange& exchange, const Outcome& outcome);

    Library& m_library;
    House& m_house;
    Changes& m_changes;
    LibraryApi m_library_api;
    AlarmApi m_alarm_api;
    Places m_waiting{16, 12};  // for a change
};

}  // namespace nuvio::controller
