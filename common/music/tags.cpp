#include "common/music/tags.h"

#include <aifffile.h>
#include <flacfile.h>
#include <mp4file.h>
#include <tpropertymap.h>
#include <wavfile.h>
#include <wavpackfile.h>

#include <algorithm>
#include <utility>

#include "common/music/open_music.h"
#include "common/number.h"
#include "common/text.h"
#include "common/utf8.h"

namespace nuvio {

namespace {

constexpr size_t kMaxText = 300;

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

}  // namespace

Tags read_tags(UniqueFd fd) {
    const OpenMusic music(std::move(fd));
    TagLib::File* const file = music.file();
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

}  // namespace nuvio
