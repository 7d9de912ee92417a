// The part of the API that is about alarms.
//
// - GET /api/alarms: all
// - POST /api/devices/ID/alarms: {"time": "07:00", "days": ["mon", ...], "what": text, "volume":
// 30,
//   "on": true}; all but time and what may be missing
// - POST /api/alarms/ID/change: the same, what is to be another; "volume": null: as it is
// - POST /api/alarms/ID/delete
//
// Threads  any; waits for the disk.
#pragma once

#include <string>

#include "controller/library/library.h"
#include "controller/session/house.h"
#include "controller/web/exchange.h"

namespace nuvio::controller {

class AlarmApi {
  public:
    // Borrows both.
    AlarmApi(Library& library, House& house) : m_library(library), m_house(house) {}

    // Each answers; the status comes back. `id`: what stands for '*' in its path.
    int get_alarms(Exchange& exchange, const std::string& id);
    int post_alarm(Exchange& exchange, const std::string& device);
    int post_change(Exchange& exchange, const std::string& id);
    int post_delete(Exchange& exchange, const std::string& id);

  private:
    int set(Exchange& exchange, Alarm alarm, const cJSON* wish);

    Library& m_library;
    House& m_house;
};

}  // namespace nuvio::controller
