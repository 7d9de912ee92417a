// The simulated card's control device: the volume and the switch of one simple mixer element, kept
// in the card's shared state. One object and its callbacks, so one file, long as it is.
//
// Poll descriptors: a watch of the card's control events, which stays readable while an event waits
// to be read, and the writing end of a pipe, whose reading end is closed when a read finds the card
// gone: from then on it reports POLLERR without end, as a driver's descriptor does.
//
// Threads: alsa-lib serialises nothing here; as with a real control handle, one thread at a time.
#include <alsa/asoundlib.h>
#include <alsa/control_external.h>
#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <iterator>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "common/unique_fd.h"
#include "tools/simcard/plugin_configuration.h"
#include "tools/simcard/shared_state.h"

namespace simcard {

namespace {

// Also the key by which alsa-lib names a control to the plug-in.
enum class Control : unsigned { volume, on };

struct ControlKind {
    Control control;
    const char* suffix;
    snd_ctl_elem_type_t type;
    Op read, write;
};

constexpr ControlKind kControlKinds[] = {
    {Control::volume, " Playback Volume", SND_CTL_ELEM_TYPE_INTEGER, Op::read_volume,
     Op::write_volume},
    {Control::on, " Playback Switch", SND_CTL_ELEM_TYPE_BOOLEAN, Op::read_switch, Op::write_switch},
};
constexpr unsigned kKindCount = std::size(kControlKinds);
constexpr unsigned kPollDescriptorCount = 2;

// One open control handle. Made by open(), deleted by alsa-lib's close callback.
class Ctl {
  public:
    static int open(snd_ctl_t** ctl, const char* name, const std::string& directory, int mode);
    explicit Ctl(Mapping card) : m_card(std::move(card)) {}

    int count() const;
    int list(unsigned offset, snd_ctl_elem_id_t* id);
    snd_ctl_ext_key_t find(const snd_ctl_elem_id_t* id) const;
    int attributes(const ControlKind& kind, int* type, unsigned* access, unsigned* count) const;
    int range(const ControlKind& kind, long* minimum, long* maximum, long* step) const;
    int read(const ControlKind& kind, long* values);
    int write(const ControlKind& kind, const long* values);
    int read_event(snd_ctl_elem_id_t* id, unsigned* mask);
    int poll_descriptors(pollfd* descriptors, unsigned space) const;
    int poll_revents(unsigned short* revents);
    void subscribe();

  private:
    // What a subscriber has been told of one control.
    struct Told {
        bool present = false;
        std::uint64_t presence_changes = 0;
        std::uint64_t value_changes = 0;
    };

    int make_descriptors();
    void describe();
    void know_controls();
    bool exists(const ControlKind& kind) const;
    const ControlKind* nth(unsigned offset) const;
    std::string control_name(const ControlKind& kind) const;
    void identify(const ControlKind& kind, snd_ctl_elem_id_t* id) const;
    int enter(Op op);
    bool dead() const { return m_card->plugged == 0 || m_card->unplugs != m_unplugs_seen; }
    bool provided(const ControlKind& kind) const;
    ControlState& state(const ControlKind& kind) const;
    unsigned pending(const ControlKind& kind) const;
    void tell(const ControlKind& kind, unsigned mask);
    void hang_up();
    const ControlKind* next_pending() const;

    snd_ctl_ext_t m_ext = {};
    Mapping m_card;
    nuvio::UniqueFd m_watch;
    nuvio::UniqueFd m_hangup_reader, m_hangup_writer;
    std::uint64_t m_unplugs_seen = 0;
    Told m_told[kKindCount];
};

// ---- Callback trampolines -----------------------------------------------------------------------

struct Callbacks {
    static Ctl& self(snd_ctl_ext_t* ext) { return *static_cast<Ctl*>(ext->private_data); }
    static const ControlKind& kind(snd_ctl_ext_key_t key) { return kControlKinds[key]; }

    static void close(snd_ctl_ext_t* ext) { const std::unique_ptr<Ctl> owned(&self(ext)); }
    static int count(snd_ctl_ext_t* ext) { return self(ext).count(); }
    static int list(snd_ctl_ext_t* ext, unsigned offset, snd_ctl_elem_id_t* id) {
        return self(ext).list(offset, id);
    }
    static snd_ctl_ext_key_t find(snd_ctl_ext_t* ext, const snd_ctl_elem_id_t* id) {
        return self(ext).find(id);
    }
    static int attributes(snd_ctl_ext_t* ext, snd_ctl_ext_key_t key, int* type, unsigned* access,
                          unsigned* count) {
        return self(ext).attributes(kind(key), type, access, count);
    }
    static int range(snd_ctl_ext_t* ext, snd_ctl_ext_key_t key, long* minimum, long* maximum,
                     long* step) {
        return self(ext).range(kind(key), minimum, maximum, step);
    }
    static int read(snd_ctl_ext_t* ext, snd_ctl_ext_key_t key, long* values) {
        return self(ext).read(kind(key), values);
    }
    static int write(snd_ctl_ext_t* ext, snd_ctl_ext_key_t key, long* values) {
        return self(ext).write(kind(key), values);
    }
    static void subscribe(snd_ctl_ext_t* ext, int on) {
        if (on > 0) {
            self(ext).subscribe();
        }
    }
    static int read_event(snd_ctl_ext_t* ext, snd_ctl_elem_id_t* id, unsigned* mask) {
        return self(ext).read_event(id, mask);
    }
    static int descriptor_count(snd_ctl_ext_t*) { return kPollDescriptorCount; }
    static int poll_descriptors(snd_ctl_ext_t* ext, pollfd* descriptors, unsigned space) {
        return self(ext).poll_descriptors(descriptors, space);
    }
    static int poll_revents(snd_ctl_ext_t* ext, pollfd*, unsigned, unsigned short* revents) {
        return self(ext).poll_revents(revents);
    }

    static const snd_ctl_ext_callback_t* table() {
        static const snd_ctl_ext_callback_t callbacks = [] {
            snd_ctl_ext_callback_t c = {};
            c.close = close;
            c.elem_count = count;
            c.elem_list = list;
            c.find_elem = find;
            c.get_attribute = attributes;
            c.get_integer_info = range;
            c.read_integer = read;
            c.write_integer = write;
            c.subscribe_events = subscribe;
            c.read_event = read_event;
            c.poll_descriptors_count = descriptor_count;
            c.poll_descriptors = poll_descriptors;
            c.poll_revents = poll_revents;
            return c;
        }();
        return &callbacks;
    }
};

// ---- Opening and closing ------------------------------------------------------------------------

int Ctl::open(snd_ctl_t** ctl, const char* name, const std::string& directory, int mode) {
    std::optional<Mapping> card = Mapping::open(directory);
    if (!card) {
        return -errno;
    }
    if (const int error = begin_call(**card, Op::ctl_open); error < 0) {
        return error;
    }
    if ((*card)->plugged == 0) {
        return -ENODEV;
    }

    auto self = std::make_unique<Ctl>(std::move(*card));
    self->m_unplugs_seen = self->m_card->unplugs;
    if (const int error = self->make_descriptors(); error < 0) {
        return error;
    }
    self->know_controls();
    self->describe();
    if (const int error = snd_ctl_ext_create(&self->m_ext, name, mode); error < 0) {
        return error;
    }
    *ctl = self.release()->m_ext.handle;  // from here on alsa-lib's close callback deletes it
    return 0;
}

int Ctl::make_descriptors() {
    m_watch = watch(m_card.directory(), Watchers::controls);
    int ends[2];
    if (!m_watch || pipe2(ends, O_CLOEXEC | O_NONBLOCK) != 0) {
        return -errno;
    }
    m_hangup_reader = nuvio::UniqueFd(ends[0]);
    m_hangup_writer = nuvio::UniqueFd(ends[1]);
    return 0;
}

// From here on, what changes is an event.
void Ctl::know_controls() {
    for (const ControlKind& kind : kControlKinds) {
        m_told[static_cast<unsigned>(kind.control)] = {
            exists(kind), m_card->element.presence_changes, state(kind).changes};
    }
}

void Ctl::describe() {
    m_ext.version = SND_CTL_EXT_VERSION;
    std::snprintf(m_ext.id, sizeof(m_ext.id), "simcard");
    std::snprintf(m_ext.driver, sizeof(m_ext.driver), "simcard");
    std::snprintf(m_ext.name, sizeof(m_ext.name), "Simulated sound card");
    std::snprintf(m_ext.longname, sizeof(m_ext.longname), "Simulated sound card");
    std::snprintf(m_ext.mixername, sizeof(m_ext.mixername), "Simulated mixer");
    m_ext.callback = Callbacks::table();
    m_ext.private_data = this;
}

// Call accounting: counts, and says whether the call must fail.
int Ctl::enter(Op op) {
    const int fault = begin_call(*m_card, op);
    return dead() ? -ENODEV : fault;
}

// ---- Which controls there are -------------------------------------------------------------------

bool Ctl::provided(const ControlKind& kind) const {
    const FixedState& fixed = m_card->fixed;
    return (kind.control == Control::volume ? fixed.has_volume : fixed.has_switch) != 0;
}

bool Ctl::exists(const ControlKind& kind) const {
    return provided(kind) && m_card->element.present != 0;
}

ControlState& Ctl::state(const ControlKind& kind) const {
    return kind.control == Control::volume ? m_card->element.volume : m_card->element.on;
}

const ControlKind* Ctl::nth(unsigned offset) const {
    for (const ControlKind& kind : kControlKinds) {
        if (exists(kind) && offset-- == 0) {
            return &kind;
        }
    }
    return nullptr;
}

std::string Ctl::control_name(const ControlKind& kind) const {
    return std::string(m_card->fixed.element_name) + kind.suffix;
}

void Ctl::identify(const ControlKind& kind, snd_ctl_elem_id_t* id) const {
    snd_ctl_elem_id_set_interface(id, SND_CTL_ELEM_IFACE_MIXER);
    snd_ctl_elem_id_set_name(id, control_name(kind).c_str());
}

// A card that is gone still counts one, or alsa-lib would not ask list() and see the error.
int Ctl::count() const {
    if (dead()) {
        return 1;
    }
    int controls = 0;
    for (const ControlKind& kind : kControlKinds) {
        controls += exists(kind) ? 1 : 0;
    }
    return controls;
}

int Ctl::list(unsigned offset, snd_ctl_elem_id_t* id) {
    if (const int error = enter(Op::ctl_list); error < 0) {
        return error;
    }
    const ControlKind* const kind = nth(offset);
    if (kind == nullptr) {
        return -EINVAL;
    }
    identify(*kind, id);
    return 0;
}

snd_ctl_ext_key_t Ctl::find(const snd_ctl_elem_id_t* id) const {
    for (const ControlKind& kind : kControlKinds) {
        if (exists(kind) && control_name(kind) == snd_ctl_elem_id_get_name(id)) {
            return static_cast<snd_ctl_ext_key_t>(kind.control);
        }
    }
    return SND_CTL_EXT_KEY_NOT_FOUND;
}

int Ctl::attributes(const ControlKind& kind, int* type, unsigned* access, unsigned* count) const {
    if (dead()) {
        return -ENODEV;
    }
    *type = kind.type;
    *access = m_card->fixed.read_only != 0 ? SND_CTL_EXT_ACCESS_READ : SND_CTL_EXT_ACCESS_READWRITE;
    *count = kElementChannels;
    return 0;
}

int Ctl::range(const ControlKind& kind, long* minimum, long* maximum, long* step) const {
    const bool volume = kind.control == Control::volume;
    *minimum = volume ? static_cast<long>(m_card->fixed.minimum_volume) : 0;
    *maximum = volume ? static_cast<long>(m_card->fixed.maximum_volume) : 1;
    *step = 1;
    return 0;
}

// ---- Values -------------------------------------------------------------------------------------

int Ctl::read(const ControlKind& kind, long* values) {
    if (const int error = enter(kind.read); error < 0) {
        return error;
    }
    for (unsigned i = 0; i < kElementChannels; ++i) {
        values[i] = static_cast<long>(state(kind).values[i].load());
    }
    return 0;
}

// 1 if anything changed, which is also when subscribers, this handle among them, get an event.
int Ctl::write(const ControlKind& kind, const long* values) {
    if (const int error = enter(kind.write); error < 0) {
        return error;
    }
    if (m_card->fixed.read_only != 0) {
        return -EPERM;
    }
    std::int64_t wanted[kElementChannels];
    for (unsigned i = 0; i < kElementChannels; ++i) {
        wanted[i] = kind.control == Control::on ? (values[i] != 0 ? 1 : 0) : values[i];
        if (kind.control == Control::volume && (wanted[i] < m_card->fixed.minimum_volume ||
                                                wanted[i] > m_card->fixed.maximum_volume)) {
            return -EINVAL;
        }
    }
    return store_control(m_card, state(kind), wanted) ? 1 : 0;
}

// ---- Events -------------------------------------------------------------------------------------

// The event to tell next of this control, 0 if none. One that went and came back gives both.
unsigned Ctl::pending(const ControlKind& kind) const {
    const Told& told = m_told[static_cast<unsigned>(kind.control)];
    const bool moved = told.presence_changes != m_card->element.presence_changes;
    if (told.present && (moved || !exists(kind))) {
        return SND_CTL_EVENT_MASK_REMOVE;
    }
    if (!told.present) {
        return exists(kind) ? SND_CTL_EVENT_MASK_ADD : 0;
    }
    return told.value_changes != state(kind).changes ? SND_CTL_EVENT_MASK_VALUE : 0;
}

void Ctl::tell(const ControlKind& kind, unsigned mask) {
    Told& told = m_told[static_cast<unsigned>(kind.control)];
    told.presence_changes = m_card->element.presence_changes;
    told.value_changes = state(kind).changes;
    told.present = mask != SND_CTL_EVENT_MASK_REMOVE;
}

const ControlKind* Ctl::next_pending() const {
    for (const ControlKind& kind : kControlKinds) {
        if (pending(kind) != 0) {
            return &kind;
        }
    }
    return nullptr;
}

// Controls that came or went before are no event. A value that changed since the handle was opened
// is: the subscriber may have read it before.
void Ctl::subscribe() {
    for (const ControlKind& kind : kControlKinds) {
        Told& told = m_told[static_cast<unsigned>(kind.control)];
        told.present = exists(kind);
        told.presence_changes = m_card->element.presence_changes;
    }
}

int Ctl::read_event(snd_ctl_elem_id_t* id, unsigned* mask) {
    if (m_ext.subscribed == 0) {
        return -EAGAIN;
    }
    if (const int error = enter(Op::read_event); error < 0) {
        if (dead()) {
            hang_up();
        }
        return error;
    }
    const ControlKind* kind = next_pending();
    if (kind == nullptr) {
        drain_watch(m_watch);
        kind = next_pending();  // a change between the two is still seen
    }
    if (kind == nullptr) {
        return -EAGAIN;
    }
    *mask = pending(*kind);
    tell(*kind, *mask);
    identify(*kind, id);
    return 1;
}

// From now on the pipe tells of the card's end, and the watch has nothing to add.
void Ctl::hang_up() {
    m_hangup_reader.reset();
    drain_watch(m_watch);
}

int Ctl::poll_descriptors(pollfd* descriptors, unsigned space) const {
    const pollfd all[kPollDescriptorCount] = {{m_watch.get(), POLLIN, 0},
                                              {m_hangup_writer.get(), POLLIN, 0}};
    const unsigned count = std::min(space, kPollDescriptorCount);
    std::copy_n(all, count, descriptors);
    return static_cast<int>(count);
}

// For programs that ask; alsa-lib's mixer takes the descriptors' own events.
int Ctl::poll_revents(unsigned short* revents) {
    *revents = 0;
    if (dead()) {
        hang_up();
        *revents = POLLERR | POLLNVAL;
        return 0;
    }
    if (next_pending() == nullptr) {
        drain_watch(m_watch);
    }
    if (next_pending() != nullptr && m_ext.subscribed != 0) {
        *revents = POLLIN;
    }
    return 0;
}

}  // namespace

}  // namespace simcard

#pragma GCC visibility push(default)
extern "C" {

SND_CTL_PLUGIN_DEFINE_FUNC(nuviosim) {
    (void)root;
    return simcard::open_from_configuration<simcard::Ctl>(handlep, name, conf, mode);
}

SND_CTL_PLUGIN_SYMBOL(nuviosim)
}
#pragma GCC visibility pop
