#include "controller/library/tags.h"

#include <aifffile.h>
#include <apetag.h>
#include <attachedpictureframe.h>
#include <fileref.h>
#include <flacfile.h>
#include <id3v2tag.h>
#include <mp4file.h>
#include <mpegfile.h>
#include <oggfile.h>
#include <opusfile.h>
#include <tfilestream.h>
#include <tpropertymap.h>
#include <vorbisfile.h>
#include <wavfile.h>
#include <wavpackfile.h>
#include <xiphcomment.h>

#include <algorithm>
#include <memory>

#include "common/number.h"
#include "common/text.h"
#include "common/utf8.h"

namespace nuvio::controller {

namespace {

constexpr size_t kMaxText = 300;
constexpr size_t kMaxPicture = size_t{8} << 20U;

struct Kind {
    std::string_view extension, type;
};
constexpr Kind kKinds[] = {
    {".flac", "audio/flac"}, {".mp3", "audio/mpeg"},     {".ogg", "audio/ogg"},
    {".oga", "audio/ogg"},   {".opus", "audio/ogg"},     {".wav", "audio/wav"},
    {".m4a", "audio/mp4"},   {".aif", "audio/aiff"},     {".aiff", "audio/aiff"},
    {".aac", "audio/aac"},   {".wv", "audio/x-wavpack"}, {".au", "audio/basic"},
    {".w64", "audio/x-w64"}, {".caf", "audio/x-caf"},    {".dsf", "audio/x-dsf"},
};

const Kind* kind_of(std::string_view name) {
    const auto* found = std::ranges::find_if(kKinds, [name](const Kind& kind) {
        return name.size() > kind.extension.size() &&
               equals_ignoring_case(name.substr(name.size() - kind.extension.size()),
                                    kind.extension);
    });
    return found == std::end(kKinds) ? nullptr : found;
}

std::string to_text(const TagLib::String& text) {
    const std::string utf8 = text.to8Bit(true);
    return std::string(beginning(trim(utf8), kMaxText));
}

std::string property(const TagLib::PropertyMap& properties, const char* name) {
    const auto found = properties.find(name);
    return found == properties.end() || found->second.isEmpty() ? std::string()
                                                                : to_text(found->second.front());
}

// "3/12" is 3.
uint32_t count_of(const std::string& text) {
    return static_cast<uint32_t>(std::clamp(leading_number(text), 0L, 9999L));
}

uint32_t bits_of(TagLib::AudioProperties* properties) {
    if (const auto* flac = dynamic_cast<TagLib::FLAC::Properties*>(properties)) {
        return static_cast<uint32_t>(flac->bitsPerSample());
    }
    if (const auto* wav = dynamic_cast<TagLib::RIFF::WAV::Properties*>(properties)) {
        return static_cast<uint32_t>(wav->bitsPerSample());
    }
    if (const auto* aiff = dynamic_cast<TagLib::RIFF::AIFF::Properties*>(properties)) {
        return static_cast<uint32_t>(aiff->bitsPerSample());
    }
    if (const auto* pack = dynamic_cast<TagLib::WavPack::Properties*>(properties)) {
        return static_cast<uint32_t>(pack->bitsPerSample());
    }
    const auto* mp4 = dynamic_cast<TagLib::MP4::Properties*>(properties);
    return mp4 != nullptr && mp4->codec() == TagLib::MP4::Properties::ALAC
               ? static_cast<uint32_t>(mp4->bitsPerSample())
               : 0;
}

// TagLib's stream closes the descriptor.
class OpenFile {
  public:
    explicit OpenFile(UniqueFd fd) : m_stream(fd.release(), true), m_file(&m_stream) {}
    TagLib::File* get() const { return m_file.isNull() ? nullptr : m_file.file(); }

  private:
    TagLib::FileStream m_stream;
    TagLib::FileRef m_file;
};

std::string bytes_of(const TagLib::ByteVector& data) {
    return {data.data(), data.size()};
}

template <typename Pictures>
std::string front_of(const Pictures& pictures) {
    std::string first;
    for (const auto* picture : pictures) {
        if (picture->type() == TagLib::FLAC::Picture::FrontCover) {
            return bytes_of(picture->data());
        }
        first = first.empty() ? bytes_of(picture->data()) : first;
    }
    return first;
}

std::string picture_of(const TagLib::ID3v2::Tag* tag) {
    std::string first;
    for (const auto* frame : tag->frameList("APIC")) {
        const auto* picture = dynamic_cast<const TagLib::ID3v2::AttachedPictureFrame*>(frame);
        if (picture != nullptr &&
            (first.empty() || picture->type() == TagLib::ID3v2::AttachedPictureFrame::FrontCover)) {
            first = bytes_of(picture->picture());
        }
    }
    return first;
}

std::string picture_of(TagLib::File* file) {
    if (auto* flac = dynamic_cast<TagLib::FLAC::File*>(file)) {
        return front_of(flac->pictureList());
    }
    if (auto* mpeg = dynamic_cast<TagLib::MPEG::File*>(file)) {
        return mpeg->hasID3v2Tag() ? picture_of(mpeg->ID3v2Tag()) : std::string();
    }
    if (auto* wav = dynamic_cast<TagLib::RIFF::WAV::File*>(file)) {
        return wav->hasID3v2Tag() ? picture_of(wav->ID3v2Tag()) : std::string();
    }
    if (auto* aiff = dynamic_cast<TagLib::RIFF::AIFF::File*>(file)) {
        return aiff->hasID3v2Tag() ? picture_of(aiff->tag()) : std::string();
    }
    if (auto* mp4 = dynamic_cast<TagLib::MP4::File*>(file)) {
        const auto covers = mp4->tag() != nullptr ? mp4->tag()->item("covr").toCoverArtList()
                                                  : TagLib::MP4::CoverArtList();
        return covers.isEmpty() ? std::string() : bytes_of(covers.front().data());
    }
    auto* xiph = dynamic_cast<TagLib::Ogg::XiphComment*>(file->tag());
    return xiph != nullptr ? front_of(xiph->pictureList()) : std::string();
}

}  // namespace

bool is_audio_name(std::string_view name) {
    return kind_of(name) != nullptr;
}

std::string_view audio_type_of(std::string_view name) {
    const Kind* kind = kind_of(name);
    return kind != nullptr ? kind->type : "application/octet-stream";
}

Tags read_tags(UniqueFd fd) {
    const OpenFile open(std::move(fd));
    TagLib::File* file = open.get();
    Tags tags;
    if (file == nullptr) {
        return tags;
    }
    const TagLib::PropertyMap properties = file->properties();
    tags.title = property(properties, "TITLE");
    tags.artist = property(properties, "ARTIST");
    tags.album = property(properties, "ALBUM");
    tags.album_artist = property(properties, "ALBUMARTIST");
    tags.disc = count_of(property(properties, "DISCNUMBER"));
    tags.number = count_of(property(properties, "TRACKNUMBER"));
    tags.year = count_of(property(properties, "DATE"));
    if (TagLib::AudioProperties* audio = file->audioProperties()) {
        tags.duration_ms = std::max(0, audio->lengthInMilliseconds());
        tags.rate_hz = static_cast<uint32_t>(std::max(0, audio->sampleRate()));
        tags.channels = static_cast<uint32_t>(std::max(0, audio->channels()));
        tags.bits = bits_of(audio);
    }
    return tags;
}

std::optional<Picture> read_embedded_picture(UniqueFd fd) {
    const OpenFile open(std::move(fd));
    std::string data = open.get() != nullptr ? picture_of(open.get()) : std::string();
    const std::string_view type = picture_type_of(data);
    if (type.empty() || data.size() > kMaxPicture) {
        return std::nullopt;
    }
    return Picture{std::move(data), type};
}

std::string_view picture_type_of(std::string_view data) {
    struct Start {
        std::string_view bytes, type;
    };
    constexpr Start kStarts[] = {{"\xFF\xD8\xFF", "image/jpeg"},
                                 {"\x89PNG\r\n\x1A\n", "image/png"},
                                 {"GIF8", "image/gif"},
                                 {"RIFF", "image/webp"}};
    for (const Start& start : kStarts) {
        if (data.starts_with(start.bytes) &&
            (start.bytes != "RIFF" || data.substr(8).starts_with("WEBP"))) {
            return start.type;
        }
    }
    return {};
}

}  // namespace nuvio::controller
