#include <poll.h>

#include <memory>

#include "tests/simcard/simcard_fixture.h"

// alsa-lib 1.2.8 forgets its list of controls when reading one fails while a mixer is being loaded.
extern "C" const char* __lsan_default_suppressions();
extern "C" const char* __lsan_default_suppressions() {
    return "leak:snd_ctl_elem_list_alloc_space\n";
}

namespace {

using simcard::Card;
using simcard::Op;
using simcard::Settings;

struct CloseMixer {
    void operator()(snd_mixer_t* mixer) const { snd_mixer_close(mixer); }
};

// What a subscriber got from the element, by event mask.
struct Events {
    int values = 0, removals = 0;
};

int on_event(snd_mixer_elem_t* element, unsigned mask) {
    auto& events = *static_cast<Events*>(snd_mixer_elem_get_callback_private(element));
    if (mask == SND_CTL_EVENT_MASK_REMOVE)
        ++events.removals;
    else if ((mask & SND_CTL_EVENT_MASK_VALUE) != 0)
        ++events.values;
    return 0;
}

// One program's view of the mixer.
class Mixer {
  public:
    // The negative errno of the first step that fails, or 0.
    int open() {
        snd_mixer_t* mixer = nullptr;
        if (const int error = snd_mixer_open(&mixer, 0); error < 0)
            return error;
        mixer_.reset(mixer);
        if (const int error = snd_mixer_attach(mixer, "simcard"); error < 0)
            return error;
        if (const int error = snd_mixer_selem_register(mixer, nullptr, nullptr); error < 0)
            return error;
        if (const int error = snd_mixer_load(mixer); error < 0)
            return error;
        find();
        return snd_mixer_poll_descriptors(mixer, descriptors_, 2) == 2 ? 0 : -EIO;
    }

    void find(const char* name = "Master") {
        snd_mixer_selem_id_t* id = nullptr;
        snd_mixer_selem_id_alloca(&id);
        snd_mixer_selem_id_set_name(id, name);
        element_ = snd_mixer_find_selem(mixer_.get(), id);
        if (element_ == nullptr)
            return;
        snd_mixer_elem_set_callback(element_, on_event);
        snd_mixer_elem_set_callback_private(element_, &events_);
    }

    long volume() const {
        long raw = -1;
        EXPECT_EQ(snd_mixer_selem_get_playback_volume(element_, SND_MIXER_SCHN_FRONT_LEFT, &raw),
                  0);
        return raw;
    }

    bool on() const {
        int on = -1;
        EXPECT_EQ(snd_mixer_selem_get_playback_switch(element_, SND_MIXER_SCHN_FRONT_LEFT, &on), 0);
        return on != 0;
    }

    int handle() const { return snd_mixer_handle_events(mixer_.get()); }

    snd_mixer_elem_t* element() const { return element_; }
    // The one that tells of events, and the one that tells of the card's end.
    const pollfd& descriptor() const { return descriptors_[0]; }
    const pollfd& hangup() const { return descriptors_[1]; }
    const Events& events() const { return events_; }

  private:
    std::unique_ptr<snd_mixer_t, CloseMixer> mixer_;
    snd_mixer_elem_t* element_ = nullptr;
    pollfd descriptors_[2] = {};
    Events events_;
};

class SimcardCtl : public SimcardTest {};

TEST_F(SimcardCtl, ChangesOfAnotherProcessArriveAsOneEventEach) {
    Card& card = make_card();
    Mixer mixer;
    ASSERT_EQ(mixer.open(), 0);
    EXPECT_EQ(mixer.volume(), 128);
    EXPECT_FALSE(readable(mixer.descriptor()));

    ASSERT_TRUE(shell("amixer sset Master 40%"));
    EXPECT_TRUE(readable(mixer.descriptor(), 5000));
    EXPECT_TRUE(readable(mixer.descriptor()));  // until the event is read
    EXPECT_GT(mixer.handle(), 0);
    EXPECT_EQ(mixer.volume(), 102);
    EXPECT_EQ(mixer.events().values, 1);
    EXPECT_FALSE(readable(mixer.descriptor(), 50));

    ASSERT_TRUE(shell("amixer sset Master mute"));
    mixer.handle();
    EXPECT_FALSE(mixer.on());
    EXPECT_EQ(mixer.events().values, 2);
    card.set_switch(false);  // as it is
    card.set_volume(102);
    EXPECT_FALSE(readable(mixer.descriptor(), 50));
}

TEST_F(SimcardCtl, AWriteReachesTheCardAndEverySubscriberTheWriterIncluded) {
    Card& card = make_card();
    Mixer writer, reader;
    ASSERT_EQ(writer.open(), 0);
    ASSERT_EQ(reader.open(), 0);
    ASSERT_EQ(snd_mixer_selem_set_playback_volume_all(writer.element(), 200), 0);
    ASSERT_EQ(snd_mixer_selem_set_playback_switch_all(writer.element(), 0), 0);
    EXPECT_EQ(card.volume(0), 200);
    EXPECT_EQ(card.volume(1), 200);
    EXPECT_FALSE(card.switch_on());
    for (Mixer* mixer : {&writer, &reader}) {
        EXPECT_TRUE(readable(mixer->descriptor()));
        mixer->handle();
        EXPECT_EQ(mixer->volume(), 200);
        EXPECT_FALSE(mixer->on());
    }
    // alsa-lib reads both controls at the first event and keeps to itself what it knew already.
    EXPECT_EQ(reader.events().values, 1);
    EXPECT_EQ(writer.events().values, 0);
    EXPECT_EQ(card.counters().calls[static_cast<std::size_t>(Op::read_event)], 2 * 3U);
    ASSERT_TRUE(shell("amixer sget Master | grep -q '200.*off'"));
}

TEST_F(SimcardCtl, ElementVanishesAndComesBack) {
    Card& card = make_card();
    Mixer mixer;
    ASSERT_EQ(mixer.open(), 0);
    card.remove_element();
    EXPECT_TRUE(readable(mixer.descriptor()));
    EXPECT_GT(mixer.handle(), 0);
    EXPECT_EQ(mixer.events().removals, 1);
    mixer.find();
    EXPECT_EQ(mixer.element(), nullptr);
    EXPECT_FALSE(shell("amixer sget Master"));

    card.set_volume(7);
    card.restore_element();
    EXPECT_GT(mixer.handle(), 0);
    mixer.find();
    ASSERT_NE(mixer.element(), nullptr);
    EXPECT_EQ(mixer.volume(), 7);
}

TEST_F(SimcardCtl, ElementIsAsConfigured) {
    Settings settings;
    settings.element.name = "Digital";
    settings.element.minimum = -10239;
    settings.element.maximum = 400;
    settings.element.volume = -4919;
    settings.element.has_switch = false;
    settings.element.read_only = true;
    make_card(settings);
    Mixer mixer;
    ASSERT_EQ(mixer.open(), 0);
    EXPECT_EQ(mixer.element(), nullptr);
    mixer.find("Digital");
    ASSERT_NE(mixer.element(), nullptr);
    long minimum = 0, maximum = 0;
    ASSERT_EQ(snd_mixer_selem_get_playback_volume_range(mixer.element(), &minimum, &maximum), 0);
    EXPECT_EQ(minimum, -10239);
    EXPECT_EQ(maximum, 400);
    EXPECT_EQ(mixer.volume(), -4919);
    EXPECT_EQ(snd_mixer_selem_has_playback_switch(mixer.element()), 0);
    EXPECT_LT(snd_mixer_selem_set_playback_volume_all(mixer.element(), 0), 0);

    settings.element.present = false;
    make_card(settings);
    Mixer without;
    ASSERT_EQ(without.open(), 0);
    without.find("Digital");
    EXPECT_EQ(without.element(), nullptr);
}

TEST_F(SimcardCtl, CallsFailOnDemand) {
    Card& card = make_card();
    for (const Op op : {Op::ctl_open, Op::ctl_list, Op::read_volume, Op::read_switch}) {
        SCOPED_TRACE(simcard::op_name(op));
        card.inject({.op = op, .error = EIO});
        EXPECT_EQ(Mixer().open(), -EIO);
        EXPECT_EQ(Mixer().open(), 0);
    }
    Mixer mixer;
    ASSERT_EQ(mixer.open(), 0);
    card.inject({.op = Op::write_volume, .error = EIO});
    EXPECT_EQ(snd_mixer_selem_set_playback_volume_all(mixer.element(), 1), -EIO);
    card.inject({.op = Op::write_switch, .error = EIO});
    EXPECT_EQ(snd_mixer_selem_set_playback_switch_all(mixer.element(), 0), -EIO);
    card.inject({.op = Op::read_event, .error = EIO});
    EXPECT_EQ(mixer.handle(), -EIO);
}

TEST_F(SimcardCtl, CardThatIsGoneFailsEveryCall) {
    Card& card = make_card();
    Mixer mixer;
    ASSERT_EQ(mixer.open(), 0);
    card.unplug();
    EXPECT_TRUE(readable(mixer.descriptor()));
    EXPECT_EQ(mixer.handle(), -ENODEV);
    EXPECT_FALSE(readable(mixer.descriptor()));
    EXPECT_TRUE(readable(mixer.hangup()));  // an error, and without end
    EXPECT_EQ(snd_mixer_selem_set_playback_volume_all(mixer.element(), 1), -ENODEV);
    EXPECT_EQ(Mixer().open(), -ENODEV);

    card.plug_in();
    EXPECT_EQ(mixer.handle(), -ENODEV);
    EXPECT_EQ(Mixer().open(), 0);
}

}  // namespace
