// A file in each job of the readers, in this process and without the walls: a fault is found here
// that costs its file behind them.
#include <FLAC/stream_encoder.h>
#include <attachedpictureframe.h>
#include <flacfile.h>
#include <id3v2tag.h>
#include <mpegfile.h>
#include <png.h>
#include <sys/mman.h>
#include <tbytevectorstream.h>
#include <turbojpeg.h>
#include <unistd.h>
#include <webp/encode.h>
#include <xiphcomment.h>

#include <algorithm>
#include <cstring>
#include <new>
#include <string>
#include <string_view>
#include <vector>

#include "common/music/pictures.h"
#include "common/utf8.h"
#include "fuzz/scripted_peer.h"
#include "fuzz/small_files.h"
#include "reader/inside/picture.h"
#include "reader/inside/scaled_picture.h"
#include "reader/inside/sheet.h"
#include "reader/inside/sound/sound_work.h"
#include "reader/inside/tags.h"

using namespace nuvio;
using namespace nuvio::reader;

namespace {

// ---- Files --------------------------------------------------------------------------------------

constexpr int kSide = 24;  // of a picture, in pixels

// Longer than there is room for, by characters that do not end there.
std::string long_title() {
    std::string title;
    while (title.size() <= kMaxText) {
        title += "\u266b";
    }
    return "a" + title;
}

const std::vector<uint8_t>& pixels() {
    static const auto* const all = new std::vector<uint8_t>([] {
        std::vector<uint8_t> bytes(size_t{3} * kSide * kSide);
        for (size_t i = 0; i < bytes.size(); ++i) {
            bytes[i] = static_cast<uint8_t>(i * i);
        }
        return bytes;
    }());
    return *all;
}

std::string png_file() {
    png_image image{};
    image.version = PNG_IMAGE_VERSION;
    image.width = image.height = kSide;
    image.format = PNG_FORMAT_RGB;
    std::string file(size_t{64} << 10U, '\0');
    png_alloc_size_t size = file.size();
    FUZZ_EXPECT(
        png_image_write_to_memory(&image, file.data(), &size, 0, pixels().data(), 0, nullptr) != 0);
    return file.substr(0, size);
}

std::string jpeg_file() {
    unsigned char* bytes = nullptr;
    unsigned long size = 0;
    tjhandle const encoder = tjInitCompress();
    FUZZ_EXPECT(tjCompress2(encoder, pixels().data(), kSide, 0, kSide, TJPF_RGB, &bytes, &size,
                            TJSAMP_420, 50, TJFLAG_PROGRESSIVE) == 0);
    std::string file(reinterpret_cast<const char*>(bytes), size);
    tjFree(bytes);
    tjDestroy(encoder);
    return file;
}

std::string webp_file() {
    uint8_t* bytes = nullptr;
    const size_t size = WebPEncodeRGB(pixels().data(), kSide, kSide, 3 * kSide, 50, &bytes);
    std::string file(reinterpret_cast<const char*>(bytes), size);
    WebPFree(bytes);
    return file;
}

TagLib::ByteVector bytes_of(const std::string& text) {
    return {text.data(), static_cast<unsigned>(text.size())};
}

// With a front cover, of both the kinds of tag that keep one.
std::string mpeg_with_picture() {
    TagLib::ByteVectorStream stream(bytes_of(small_sounds()[4]));
    TagLib::MPEG::File file(&stream, TagLib::ID3v2::FrameFactory::instance());
    auto* const frame = new TagLib::ID3v2::AttachedPictureFrame;
    frame->setType(TagLib::ID3v2::AttachedPictureFrame::FrontCover);
    frame->setPicture(bytes_of(png_file()));
    file.ID3v2Tag(true)->addFrame(frame);
    file.ID3v2Tag()->setTitle({long_title(), TagLib::String::UTF8});
    FUZZ_EXPECT(file.save());
    return {stream.data()->data(), stream.data()->size()};
}

std::string flac_with_picture() {
    TagLib::ByteVectorStream stream(bytes_of(small_sounds()[1]));
    TagLib::FLAC::File file(&stream, TagLib::ID3v2::FrameFactory::instance());
    auto* const picture = new TagLib::FLAC::Picture;
    picture->setType(TagLib::FLAC::Picture::FrontCover);
    picture->setData(bytes_of(jpeg_file()));
    file.addPicture(picture);
    FUZZ_EXPECT(file.save());
    return {stream.data()->data(), stream.data()->size()};
}

std::string sheet() {
    return "TITLE " + long_title() +
           "\nFILE \"a b\" WAVE\nTRACK 1 AUDIO\nINDEX 00 0:0:0\nINDEX 01 0:0:1\n"
           "TRACK 2 AUDIO\nPERFORMER b\nINDEX 01 0:0:2\nFILE c WAVE\nTRACK 3 AUDIO\nINDEX 1 "
           "0:0:0\n";
}

std::string flac_with_sheet_comment() {
    TagLib::ByteVectorStream stream(bytes_of(small_sounds()[1]));
    TagLib::FLAC::File file(&stream, TagLib::ID3v2::FrameFactory::instance());
    file.xiphComment(true)->addField("CUESHEET", {sheet(), TagLib::String::UTF8});
    FUZZ_EXPECT(file.save());
    return {stream.data()->data(), stream.data()->size()};
}

// Behind the first block: three tracks of one index, the last one the lead-out.
std::string flac_with_sheet_block() {
    std::string block(396, '\0');
    block.back() = 3;
    for (const char number : {1, 2, 3}) {
        std::string track(36 + 12, '\0');
        track[7] = static_cast<char>(16 * number);
        track[8] = number;
        track[35] = 1;
        track[44] = 1;
        block += track;
    }
    const std::string head{5, 0, static_cast<char>(block.size() / 256),
                           static_cast<char>(block.size() % 256)};
    std::string file = small_sounds()[1];
    return file.insert(4 + 4 + 34, head + block);
}

// Of 32 bits, which libsndfile neither writes nor reads.
std::string deep_flac() {
    const auto append = [](const FLAC__StreamEncoder*, const FLAC__byte* bytes, size_t count,
                           uint32_t, uint32_t, void* file) {
        static_cast<std::string*>(file)->append(reinterpret_cast<const char*>(bytes), count);
        return FLAC__STREAM_ENCODER_WRITE_STATUS_OK;
    };
    std::vector<FLAC__int32> samples(size_t{2} * 8000);
    for (size_t i = 0; i < samples.size(); ++i) {
        samples[i] = static_cast<FLAC__int32>(i * i * i);
    }
    std::string file;
    FLAC__StreamEncoder* const encoder = FLAC__stream_encoder_new();
    FLAC__stream_encoder_set_bits_per_sample(encoder, 32);
    FUZZ_EXPECT(FLAC__stream_encoder_init_stream(encoder, append, nullptr, nullptr, nullptr,
                                                 &file) == FLAC__STREAM_ENCODER_INIT_STATUS_OK);
    FLAC__stream_encoder_process_interleaved(encoder, samples.data(), 8000);
    FLAC__stream_encoder_finish(encoder);
    FLAC__stream_encoder_delete(encoder);
    return file;
}

std::string atom(std::string_view name, const std::string& inside) {
    const size_t size = inside.size() + 8;
    return {std::string{static_cast<char>(size >> 24U), static_cast<char>(size >> 16U),
                        static_cast<char>(size >> 8U), static_cast<char>(size)} +
            std::string(name) + inside};
}

std::string mp4_with_picture() {
    const std::string data = std::string(3, '\0') + '\1' + std::string(4, '\0');
    const std::string list = atom("ilst", atom("\251nam", atom("data", data + long_title())) +
                                              atom("covr", atom("data", data + jpeg_file())));
    return atom("ftyp", "M4A isom") +
           atom("moov", atom("mvhd", std::string(100, '\0')) +
                            atom("udta", atom("meta", std::string(4, '\0') + list)));
}

const std::vector<std::string>& files() {
    static const auto* const all = new std::vector<std::string>([] {
        std::vector<std::string> found{png_file(),
                                       jpeg_file(),
                                       webp_file(),
                                       mpeg_with_picture(),
                                       flac_with_picture(),
                                       mp4_with_picture(),
                                       sheet(),
                                       flac_with_sheet_comment(),
                                       flac_with_sheet_block(),
                                       ""};
        found.insert(found.end(), small_sounds().begin(), small_sounds().end());
        found.push_back(deep_flac());
        return found;
    }());
    return *all;
}

// One of them with bytes changed, put in and cut off, or whatever the input is.
std::string file_by(Script& script) {
    std::string file = files()[script.byte() % files().size()];
    for (int n = script.byte() % 8; n > 0; --n) {
        const size_t place = script.word() % (file.size() + 1);
        switch (script.byte() % 4) {
            case 0:
                file.resize(place);
                break;
            case 1:
                file.insert(place, script.bytes(script.byte()));
                break;
            default:
                file.replace(place, 4, script.bytes(1 + script.byte() % 4));
        }
    }
    return file += script.bytes(SIZE_MAX);
}

UniqueFd descriptor_of(const std::string& file) {
    UniqueFd fd(memfd_create("file", MFD_CLOEXEC));
    FUZZ_EXPECT(pwrite(fd.get(), file.data(), file.size(), 0) == static_cast<ssize_t>(file.size()));
    return fd;
}

// ---- Jobs ---------------------------------------------------------------------------------------

char* shared_memory() {
    static void* const memory = mmap(nullptr, std::max(kSoundBytes, kMaxPictureBytes),
                                     PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    FUZZ_EXPECT(memory != MAP_FAILED);
    return static_cast<char*>(memory);
}

template <size_t size>
bool is_text(const char (&field)[size]) {
    return is_utf8({field, strnlen(field, size)});
}

void read_tags_of(const UniqueFd& file) {
    TagsAnswer answer{};
    read_tags(file, &answer);
    FUZZ_EXPECT(is_text(answer.title) && is_text(answer.artist) && is_text(answer.album) &&
                is_text(answer.album_artist));
    FUZZ_EXPECT(answer.duration_ms >= 0);
}

bool has_picture(const PictureAnswer& answer) {
    FUZZ_EXPECT(answer.size <= kMaxPictureBytes);
    return picture_kind_of({shared_memory(), std::min<size_t>(answer.size, kPictureStart)}) !=
           nullptr;
}

void read_picture_of(const UniqueFd& file) {
    PictureAnswer answer{};
    read_picture(file, shared_memory(), &answer);
    FUZZ_EXPECT(answer.size == 0 || has_picture(answer));
}

void scale_picture_of(const UniqueFd& file, uint32_t edge) {
    PictureAnswer answer{};
    scale_picture(file, edge, shared_memory(), &answer);
    FUZZ_EXPECT(answer.size == 0 || has_picture(answer));
}

// The tracks of one file are the whole of it.
void read_sheet_of(const UniqueFd& file, bool is_inside) {
    SheetAnswer answer{};
    Request request{.job = Job::sheet};
    request.is_inside = is_inside;
    Parent nobody;  // a file's reader asks for nothing
    read_sheet(request, UniqueFd(dup(file.get())), shared_memory(), nobody, &answer);
    FUZZ_EXPECT(answer.error[0] == '\0' || answer.bytes == 0);
    std::string_view records(shared_memory(), answer.bytes);
    size_t count = 0;
    for (auto track = take_sheet_track(&records); track; track = take_sheet_track(&records)) {
        ++count;
        FUZZ_EXPECT(count <= kMaxSheetTracks && track->section.begin_us < track->section.end_us);
        FUZZ_EXPECT(is_utf8(track->title) && track->title.size() <= kMaxText);
    }
    FUZZ_EXPECT(records.empty());
}

void play(UniqueFd file, Script& places) {
    Parent nobody;  // a file's reader asks for nothing
    SoundWork work;
    SoundAnswer sound{};
    Request request{.job = Job::open_sound};
    request.section = {places.word(),
                       places.byte() % 2 == 0 ? places.word() * uint64_t{100} : Section::kToTheEnd};
    request.section.begin_us *= places.byte() % 2;
    work.open(request, std::move(file), shared_memory(), nobody, &sound);
    if (sound.is_readable == 0) {
        FUZZ_EXPECT(sound.error[0] != '\0');
        return;
    }
    FUZZ_EXPECT(sound.rate_hz > 0 && sound.channels > 0);
    SoundPage& page = sound_page(shared_memory());
    for (int n = 0; n < 3; ++n) {
        page.done = page.is_awaited = page.is_stopped = 0;
        page.given = UINT32_MAX;  // it never has to wait
        for (uint32_t i = 0; i < kMaxBlocks; ++i) {
            page.blocks[i].number = i;
        }
        const size_t frame_bytes = sound.channels * (sound.is_deep != 0 ? 4 : 2);
        const auto block_bytes =
            static_cast<uint32_t>(kBlockBytes / (n + 2) / frame_bytes * frame_bytes);
        ReadAnswer read{};
        work.read({.job = Job::read_sound, .block_bytes = block_bytes}, nobody, &read);
        for (uint32_t i = 0; i < std::min<uint32_t>(page.done, kMaxBlocks); ++i) {
            const uint32_t bytes = page.blocks[i].bytes;
            FUZZ_EXPECT(bytes > 0 && bytes <= block_bytes && bytes % frame_bytes == 0);
        }
        SeekAnswer seek{};
        work.seek({.job = Job::seek_sound, .frame = places.word() % size_t{10'000}}, &seek);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Script script(data, size);
    const uint16_t edge = script.word();
    Script places = script;
    const UniqueFd file = descriptor_of(file_by(script));
    try {
        read_tags_of(file);
        read_picture_of(file);
        read_sheet_of(file, true);
        read_sheet_of(file, false);
        scale_picture_of(file, edge);
        play(UniqueFd(dup(file.get())), places);
    } catch (const std::bad_alloc&) {  // too big for a reader
    }
    return 0;
}
