// The tracks of one joined session, the order in which they play and the place in it.
//
// A track is named by its number: its place in the list that the session began with, or the next
// one never used where it came later. Shuffling changes only the order. A track that turned out
// unplayable is passed over from then on. There is always at least one track. Loop thread only.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "local/playback/verb.h"
#include "local/track/content.h"
#include "sdk/nuvio_connect.h"

namespace local_core {

// A change of the list.
struct QueueEdit {
    Verb verb = Verb::queue_jump;  // one of the changes of a list
    std::vector<Track> tracks;     // replace (not none), insert
    std::optional<size_t> start;   // replace: as a session's
    std::vector<size_t> items;     // remove, move: none twice; jump: the one that is current
    std::optional<size_t> before;  // insert, move: in front of which; none: at the end
};

class Session {
  public:
    static constexpr size_t kMaxTracks = 20000;
    static constexpr size_t kMaxTextBytes = size_t{8} << 20;  // of all tracks together

    // `tracks` must not be empty. `start`: the place in them that is current, with all others
    // behind it where it is shuffled; none: the first of the order.
    Session(std::string id, std::vector<Track> tracks, nuv_loop_mode loop_mode, bool shuffle,
            std::optional<size_t> start = std::nullopt);

    const std::string& id() const { return m_id; }
    // How the session's own content is asked for; null for content of this machine.
    const std::shared_ptr<const HttpRequest>& remote() const { return m_remote; }
    // One that is gone is empty.
    const Track& track(size_t number) const;
    size_t current() const { return m_order[m_position]; }

    // What plays by itself after the current track; none at the end.
    std::optional<size_t> follower() const { return m_follower; }
    // Where a skip leads; only looping over the whole list goes beyond its ends.
    std::optional<size_t> next() const { return m_next; }
    std::optional<size_t> previous() const { return m_previous; }

    // Nothing happens where the track is gone.
    void move_to(size_t number);
    // To the first playable track of the order.
    void rewind();
    void mark_unplayable(size_t number);
    // Shuffling lays the order anew with the current track in front; its end restores the list's.
    void set_modes(nuv_loop_mode loop_mode, bool shuffle);

    // The numbers in the list's order, unshuffled; another revision after each change.
    const std::vector<size_t>& list() const { return m_list; }
    uint64_t revision() const { return m_revision; }
    // Where the current track is removed, the one behind it is current, or the last one. New tracks
    // play at their place in the list; shuffled, behind the current one, by chance or in front of
    // the one named. On an error nothing has changed: NUV_ERROR_NOT_FOUND for an unknown number,
    // NUV_ERROR_INVALID_STATE where no track would be left, NUV_ERROR_INVALID_ARGUMENT where there
    // would be more than the bounds above. The tracks of `edit` are taken.
    nuv_error edit(QueueEdit& edit);

  private:
    struct Entry {
        size_t number;
        Track track;
        bool unplayable = false;
    };

    nuv_error check(const QueueEdit& edit) const;
    void replace(QueueEdit& edit);
    void insert(QueueEdit& edit);
    void remove(QueueEdit& edit);
    void move(QueueEdit& edit);
    void jump(QueueEdit& edit);

    const Entry* find(size_t number) const;
    Entry* find(size_t number);
    std::vector<size_t> take_in(std::vector<Track> tracks);
    void put_into_list(const std::vector<size_t>& numbers, std::optional<size_t> before);
    void begin_order(std::optional<size_t> start);
    void lay_order();
    void look_around();
    std::optional<size_t> search(bool forward) const;

    std::string m_id;
    std::shared_ptr<const HttpRequest> m_remote;
    std::deque<Entry> m_entries;  // by number; long lists grow without being copied
    size_t m_next_number = 0;
    std::vector<size_t> m_list;
    uint64_t m_revision = 0;
    std::vector<size_t> m_order;  // numbers, in playing order
    size_t m_position = 0;        // in m_order
    nuv_loop_mode m_loop_mode;
    bool m_shuffle;
    std::minstd_rand m_random{std::random_device{}()};
    std::optional<size_t> m_follower;
    std::optional<size_t> m_next;
    std::optional<size_t> m_previous;
};

}  // namespace local_core
