// What devices fetch: a session's playlist, and the tracks, with ranges and ETag; and the covers.
//
//   GET /content/SESSION.jspf   the playlist that the session was begun with
//   GET /content/ID.EXTENSION   a track of the library
//   GET /cover/ID               an album's picture; with ?size=320 or ?size=1000 a smaller one
//
// The first two need the bearer token of a session that is not over.
//
// Threads  any; waits for disk and peer.
#pragma once

#include <string_view>

#include "controller/library/library.h"
#include "controller/session/house.h"
#include "controller/web/exchange.h"
#include "controller/web/places.h"

namespace nuvio::controller {

class Content {
  public:
    // Borrows all.
    Content(Library& library, House& house) : m_library(library), m_house(house) {}

    // `name`: what stands behind "/content/".
    int serve(Exchange& exchange, std::string_view name);
    int serve_cover(Exchange& exchange, std::string_view id);

  private:
    int serve_file(Exchange& exchange, const Library::File& file);

    Library& m_library;
    House& m_house;
    // By token; a device has two connections at most while it changes tracks.
    Places m_being_sent{24, 3};
};

}  // namespace nuvio::controller
