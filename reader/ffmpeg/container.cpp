#include "reader/ffmpeg/container.h"

#include <cstdlib>

namespace nuvio::reader::libav {

namespace {

constexpr char kDemuxers[] = "mov,caf,aac,mpegts,wv,dsf,iff,ogg";
constexpr int kBufferBytes = 32768;
// Of a radio: what is read is what its titles are shown by.
constexpr int kRadioBufferBytes = 4096;

// After AVERROR_EOF libavformat does not read again before it has sought; 0 is not allowed. What it
// calls is C: neither of the two may throw.
int read_input(void* opaque, uint8_t* to, int size) {
    const size_t got = static_cast<Input*>(opaque)->read(to, static_cast<size_t>(size));
    return got > 0 ? static_cast<int>(got) : AVERROR_EOF;
}

// Asked for places from the beginning, for the length, and where there is none for the last byte
// (SEEK_END, -1). A failure leaves libavformat where it was, with what it had in its buffer.
int64_t seek_input(void* opaque, int64_t offset, int whence) {
    auto& input = *static_cast<Input*>(opaque);
    const auto length = input.length();
    whence &= ~AVSEEK_FORCE;
    if (whence == AVSEEK_SIZE) {
        return length ? static_cast<int64_t>(*length) : AVERROR(ENOSYS);
    }
    if (whence == SEEK_CUR) {
        offset += static_cast<int64_t>(input.position());
    } else if (whence == SEEK_END) {
        offset += static_cast<int64_t>(length.value_or(0));
    }
    return offset >= 0 && input.seek(static_cast<uint64_t>(offset)) ? offset : AVERROR(EIO);
}

}  // namespace

int open_container(Input& input, AVDictionary** options, Io* io, Container* container) {
    const int bytes = input.is_radio() ? kRadioBufferBytes : kBufferBytes;
    auto* const buffer = static_cast<unsigned char*>(av_malloc(static_cast<size_t>(bytes)));
    io->reset(avio_alloc_context(buffer, bytes, 0, &input, read_input, nullptr, seek_input));
    AVFormatContext* format = avformat_alloc_context();
    if (!*io || format == nullptr) {
        return AVERROR(ENOMEM);
    }
    (*io)->seekable = input.length() ? AVIO_SEEKABLE_NORMAL : 0;
    format->pb = io->get();
    format->max_analyze_duration = AV_TIME_BASE;
    format->format_whitelist = av_strdup(kDemuxers);
    format->codec_whitelist = av_strdup(kDecoders);
    format->protocol_whitelist = av_strdup("none");
    const int opened = avformat_open_input(&format, "", nullptr, options);
    if (opened < 0) {
        return opened;  // it is freed
    }
    container->reset(format);
    return 0;
}

std::optional<int64_t> frames_told(const AVFormatContext& container) {
    constexpr int kFrames = 3;  // of its hexadecimal numbers
    const AVDictionaryEntry* const entry = av_dict_get(container.metadata, "iTunSMPB", nullptr, 0);
    char* rest = entry != nullptr ? entry->value : nullptr;
    unsigned long long frames = 0;
    for (int i = 0; rest != nullptr && i <= kFrames; ++i) {
        frames = std::strtoull(rest, &rest, 16);
    }
    return frames > 0 && frames < INT64_MAX ? std::optional(static_cast<int64_t>(frames))
                                            : std::nullopt;
}

std::string text_of(int error) {
    char text[AV_ERROR_MAX_STRING_SIZE];
    return av_strerror(error, text, sizeof text) == 0 ? text : "unreadable";
}

std::string tag(const AVFormatContext& container, const AVStream& stream, const char* name) {
    const AVDictionaryEntry* entry = av_dict_get(container.metadata, name, nullptr, 0);
    if (entry == nullptr) {
        entry = av_dict_get(stream.metadata, name, nullptr, 0);
    }
    constexpr size_t kMaxTagBytes = 1024;
    return entry != nullptr ? std::string(entry->value).substr(0, kMaxTagBytes) : "";
}

}  // namespace nuvio::reader::libav
