// The handles of FFmpeg's libraries.
#pragma once

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
}

#include <memory>

namespace nuvio::reader::libav {

template <auto release>
struct ReleasedByAddress {
    template <typename Handle>
    void operator()(Handle* handle) const {
        release(&handle);
    }
};
struct IoFreer {
    void operator()(AVIOContext* io) const {
        av_freep(static_cast<void*>(&io->buffer));
        avio_context_free(&io);
    }
};
using Io = std::unique_ptr<AVIOContext, IoFreer>;
using Container = std::unique_ptr<AVFormatContext, ReleasedByAddress<avformat_close_input>>;
using Decoder = std::unique_ptr<AVCodecContext, ReleasedByAddress<avcodec_free_context>>;
using Packet = std::unique_ptr<AVPacket, ReleasedByAddress<av_packet_free>>;
using Frame = std::unique_ptr<AVFrame, ReleasedByAddress<av_frame_free>>;

}  // namespace nuvio::reader::libav
