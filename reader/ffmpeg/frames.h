// The frames of the sound in an input, as libavcodec decodes them one after the other.
//
// One thread; reading blocks on the input.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "reader/ffmpeg/handles.h"
#include "reader/inside/sound/foreign_sound.h"

namespace nuvio::reader::libav {

class Frames {
  public:
    explicit Frames(Input& input) : m_input(input) {}

    // Begins with what stands at the input's place; negative where it failed. As often as wanted: a
    // decoder of the same kind goes on with its half a frame of sound.
    int open();
    // Of an MPEG-4 file, what its edits hide, in the stream's time; before open(). Negative where
    // it failed.
    int look_at_media(int64_t* duration, int64_t* edit_begin);
    // Nothing of the frames before stays in the decoder; false where there is none any more.
    bool begin_anew();
    // Nothing but an overlap stays.
    bool flush();

    // Only while it is open: after a failure of one of these it need not be.
    bool is_open() const { return m_container && m_decoder; }
    AVFormatContext& container() const { return *m_container; }
    AVCodecContext& decoder() const { return *m_decoder; }
    AVStream& stream() const { return *m_container->streams[m_stream]; }
    std::string_view kind() const { return m_container->iformat->name; }
    // Goes to a place in the stream's time, or with AVSEEK_FLAG_BYTE in bytes.
    bool seek(int64_t place, int flags) {
        return av_seek_frame(m_container.get(), m_stream, place, flags) >= 0;
    }

    // The next one; false at the end, or where it failed.
    bool receive(AVFrame& frame);

    // Of the packet that was decoded last, which is one frame: its number, counted from what was
    // set, and the place that a packet of FLAC tells.
    uint64_t packet() const { return m_next_packet - 1; }
    void set_next_packet(uint64_t number) { m_next_packet = number; }
    std::optional<int64_t> flac_place() const { return m_flac_place; }

    std::optional<ForeignSound::Texts> take_new_texts();
    const std::string& last_error() const { return m_error; }

  private:
    int open_decoder(const AVCodec* codec);
    bool decodes_on() const;
    bool is_timed_id3(unsigned stream) const;
    void note_texts(bool has_packet);
    std::optional<int64_t> flac_place_of(const AVPacket& packet) const;
    int read_packet();
    bool feed();

    Input& m_input;
    Io m_io;
    Container m_container;
    Decoder m_decoder;
    Packet m_packet;
    int m_stream = -1;
    uint64_t m_next_packet = 0;
    std::optional<int64_t> m_flac_place;
    std::optional<ForeignSound::Texts> m_new_texts;
    std::string m_error;
};

}  // namespace nuvio::reader::libav
