#include "reader/inside/tags.h"

#include <aifffile.h>
#include <flacfile.h>
#include <mp4file.h>
#include <tpropertymap.h>
#include <wavfile.h>
#include <wavpackfile.h>

#include <algorithm>
#include <string>

#include "common/number.h"
#include "common/text.h"
#include "common/utf8.h"
#include "reader/inside/music_file.h"

namespace nuvio::reader {

namespace {

std::string text_of(const TagLib::PropertyMap& properties, const char* name) {
    const auto found = properties.find(name);
    if (found == properties.end() || found->second.isEmpty()) {
        return {};
    }
    // Characters of at most kMaxText bytes, and some white space before them.
    const std::string utf8 = found->second.front().substr(0, 2 * kMaxText).to8Bit(true);
    return std::string(beginning(trim(utf8), kMaxText));
}

// The answer is zeros so far.
void put(const std::string& text, char (&to)[kMaxText]) {
    std::copy(text.begin(), text.end(), to);
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

void read_tags(const UniqueFd& fd, TagsAnswer* answer) {
    const MusicFile music(fd);
    TagLib::File* const file = music.file();
    if (file == nullptr) {
        return;
    }
    const TagLib::PropertyMap properties = file->properties();
    put(text_of(properties, "TITLE"), answer->title);
    put(text_of(properties, "ARTIST"), answer->artist);
    put(text_of(properties, "ALBUM"), answer->album);
    put(text_of(properties, "ALBUMARTIST"), answer->album_artist);
    put(text_of(properties, "GENRE"), answer->genre);
    put(text_of(properties, "COMPOSER"), answer->composer);
    answer->disc = count_of(text_of(properties, "DISCNUMBER"));
    answer->number = count_of(text_of(properties, "TRACKNUMBER"));
    answer->year = count_of(text_of(properties, "DATE"));
    if (TagLib::AudioProperties* audio = file->audioProperties()) {
        answer->duration_ms = std::max(0, audio->lengthInMilliseconds());
        answer->rate_hz = static_cast<uint32_t>(std::max(0, audio->sampleRate()));
        answer->channels = static_cast<uint32_t>(std::max(0, audio->channels()));
        answer->bits = bits_of(audio);
    }
}

}  // namespace nuvio::reader
