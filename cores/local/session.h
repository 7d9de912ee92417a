// The tracks of one joined session, the order in which they play and the place in it.
//
// Tracks are named by their index in the list they came in; shuffling changes only the order. A
// track that turned out unplayable is passed over from then on. Loop thread only.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "local/content.h"
#include "sdk/nuvio_connect.h"

namespace local_core {

class Session {
  public:
    // `tracks` must not be empty; the first of the order is current.
    Session(std::string id, std::vector<Track> tracks, nuv_loop_mode loop_mode, bool shuffle);

    const std::string& id() const { return m_id; }
    const Track& track(size_t index) const { return m_tracks[index]; }
    size_t current() const { return m_order[m_position]; }

    // What plays by itself after the current track; none at the end.
    std::optional<size_t> follower() const { return m_follower; }
    // Where a skip leads; only looping over the whole list goes beyond its ends.
    std::optional<size_t> next() const { return m_next; }
    std::optional<size_t> previous() const { return m_previous; }

    void move_to(size_t index);
    // To the first playable track of the order.
    void rewind();
    void mark_unplayable(size_t index);
    // Shuffling lays the order anew with the current track in front; its end restores the list's.
    void set_modes(nuv_loop_mode loop_mode, bool shuffle);

  private:
    void lay_order();
    void look_around();
    std::optional<size_t> search(bool forward) const;

    std::string m_id;
    std::vector<Track> m_tracks;
    std::vector<bool> m_unplayable;  // by index
    std::vector<size_t> m_order;     // indexes, in playing order
    size_t m_position = 0;           // in m_order
    nuv_loop_mode m_loop_mode;
    bool m_shuffle;
    std::minstd_rand m_random{std::random_device{}()};
    std::optional<size_t> m_follower;
    std::optional<size_t> m_next;
    std::optional<size_t> m_previous;
};

}  // namespace local_core
