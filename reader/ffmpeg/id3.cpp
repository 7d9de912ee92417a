#include "reader/ffmpeg/id3.h"

#include <taglib/id3v2framefactory.h>
#include <taglib/id3v2tag.h>
#include <taglib/mpegfile.h>
#include <taglib/tbytevectorstream.h>

#include <string>

namespace nuvio::reader {

namespace {

// Where libavformat takes a head of five bytes from a packet that has none, these are gone. The
// version is the one that streams have to have; TagLib reads older ones by it too.
constexpr std::string_view kMarkAndVersion("ID3\4\0", 5);

}  // namespace

std::optional<ForeignSound::Texts> texts_in_id3(std::string_view packet) {
    std::string bytes(packet);
    if (!packet.starts_with("ID3")) {
        bytes.insert(0, kMarkAndVersion);
    }
    TagLib::ByteVectorStream stream(
        TagLib::ByteVector(bytes.data(), static_cast<unsigned>(bytes.size())));
    TagLib::MPEG::File file(&stream, TagLib::ID3v2::FrameFactory::instance(), false);
    const TagLib::ID3v2::Tag* const tag = file.ID3v2Tag(false);
    if (tag == nullptr || tag->title().isEmpty()) {
        return std::nullopt;
    }
    return ForeignSound::Texts{tag->title().to8Bit(true), tag->artist().to8Bit(true)};
}

}  // namespace nuvio::reader
