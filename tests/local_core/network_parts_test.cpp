// What the network's bytes say, in whatever pieces they come.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "common/url/url.h"
#include "local/network/http_response.h"
#include "local/network/icy.h"
#include "reader/inside/sound/mpeg_sync.h"
#include "reader/inside/sound/ogg_end.h"

using namespace local_core;
using namespace nuvio::reader;
using namespace std::string_literals;

namespace {

// A page's first bytes: its mark, version and flags, then something of a body.
std::string page(char flags, const std::string& body) {
    return std::string("OggS\0", 5) + flags + body;
}

TEST(NetworkParts, AnOggStreamEndsWhereTheNextOneBeginsHoweverItsBytesAreCut) {
    const std::string first = page(2, "head") + page(2, "other head") + page(0, "sound, OggS too");
    const std::string bytes = first + page(2, "next");
    for (size_t piece = 1; piece <= bytes.size(); ++piece) {
        OggEnd end;
        std::ptrdiff_t found = -1;
        for (size_t at = 0; at < bytes.size() && found < 0; at += piece) {
            if (const auto place = end.find(std::string_view(bytes).substr(at, piece))) {
                found = static_cast<std::ptrdiff_t>(at) + *place;
            }
        }
        EXPECT_EQ(found, static_cast<std::ptrdiff_t>(first.size())) << "in pieces of " << piece;
    }
}

TEST(NetworkParts, TitlesAreTakenOutOfARadiosBytesHoweverTheyAreCut) {
    std::string text = "StreamTitle='It's one';Url='x';";
    text.resize(32, '\0');
    const std::string bytes = "abcd\2" + text + "efgh\0ij"s;
    for (size_t piece = 1; piece <= bytes.size(); ++piece) {
        IcyFilter filter(4);
        std::string audio;
        std::vector<std::string> titles;
        for (size_t at = 0; at < bytes.size(); at += piece) {
            filter.feed(
                std::string_view(bytes).substr(at, piece),
                [&](std::string_view heard) { audio += heard; },
                [&](std::string_view title) { titles.emplace_back(title); });
        }
        EXPECT_EQ(audio, "abcdefghij") << "in pieces of " << piece;
        EXPECT_EQ(titles, std::vector<std::string>{"It's one"}) << "in pieces of " << piece;
    }
}

TEST(NetworkParts, MpegAudioBeginsAtThreeFramesInARowWhateverTheirKind) {
    constexpr struct {
        const char* header;
        size_t bytes;  // of the frame
    } kFrames[] = {
        {"\xff\xfb\x90\x00", 417},   // MPEG 1: 128 kbit/s, 44100 Hz
        {"\xff\xfb\x92\x00", 418},   // the same, padded
        {"\xff\xfb\x94\x00", 384},   // 48000 Hz
        {"\xff\xfb\xe8\x00", 1440},  // 320 kbit/s, 32000 Hz
        {"\xff\xf3\x80\x00", 208},   // MPEG 2: 64 kbit/s, 22050 Hz
        {"\xff\xe3\x88\x00", 576},   // MPEG 2.5: 64 kbit/s, 8000 Hz
    };
    for (const auto& [header, bytes] : kFrames) {
        const std::string head(header, 4);
        const std::string frame = head + std::string(bytes - 4, '\0');
        const std::string part = "rest of a frame" + head;
        std::string two = part;
        two.append(frame).append(frame);
        EXPECT_EQ(first_mpeg_frame(two + head), part.size()) << bytes;
        EXPECT_EQ(first_mpeg_frame(two), 0U) << bytes;
    }
    const std::string quiet = std::string("\xff\xfb\x90\x00", 4) + std::string(413, '\0');
    const std::string loud = std::string("\xff\xfb\xe0\x00", 4) + std::string(1040, '\0');
    EXPECT_DOUBLE_EQ(mpeg_samples_a_byte("a rest" + quiet + loud + quiet + "a tag"),
                     3 * 1152.0 / (2 * 417 + 1044));
    EXPECT_EQ(mpeg_samples_a_byte(quiet.substr(4)), 0);
}

TEST(NetworkParts, AResponsesHeadLeadsToItsVerdict) {
    using Kind = HttpVerdict::Kind;
    const auto response = [](const std::vector<std::string>& lines) {
        HttpResponse taken;
        for (const std::string& line : lines) {
            taken.take_line(line);
        }
        return taken;
    };
    const HttpResponse first = response({"HTTP/1.1 200 OK", "ETag: \"a\"", "Content-Length: 1000"});
    const struct {
        std::vector<std::string> lines;
        uint64_t asked_from;
        Kind kind;
        HttpFailure failure;
        uint64_t skip;
        uint64_t length;
    } cases[] = {
        {{"HTTP/1.1 206 x", "content-range: bytes 100-999/1000"}, 100, Kind::accepted, {}, 0, 0},
        {{"HTTP/1.1 206 x", "Content-Range: bytes 99-999/1000"},
         100,
         Kind::failed,
         HttpFailure::missing,
         0,
         0},
        {{"HTTP/1.1 206 x", "Content-Range: bytes 100-999/1001"},
         100,
         Kind::failed,
         HttpFailure::changed,
         0,
         0},
        {{"HTTP/1.1 200 OK", "ETag: \"a\""}, 100, Kind::accepted, {}, 100, 0},
        {{"HTTP/1.1 200 OK", "ETag: \"b\""}, 100, Kind::failed, HttpFailure::changed, 0, 0},
        {{"HTTP/1.1 416 x", "Content-Range: bytes */1000"}, 1000, Kind::at_end, {}, 0, 1000},
        {{"HTTP/1.1 416 x", "Content-Range: bytes */900"},
         1000,
         Kind::failed,
         HttpFailure::changed,
         0,
         0},
        {{"HTTP/1.1 302 x", "Location: /b"}, 0, Kind::redirected, {}, 0, 0},
        {{"HTTP/1.1 429 x"}, 0, Kind::try_again, {}, 0, 0},
        {{"HTTP/1.1 500 x"}, 0, Kind::try_again, {}, 0, 0},
        {{"HTTP/1.1 403 x"}, 0, Kind::failed, HttpFailure::refused, 0, 0},
        {{"HTTP/1.1 404 x"}, 0, Kind::failed, HttpFailure::missing, 0, 0},
    };
    for (const auto& wanted : cases) {
        const HttpVerdict verdict = judge(response(wanted.lines), &first, wanted.asked_from);
        EXPECT_EQ(verdict.kind, wanted.kind) << wanted.lines.back();
        EXPECT_EQ(verdict.failure, wanted.failure) << wanted.lines.back();
        EXPECT_EQ(verdict.skip, wanted.skip) << wanted.lines.back();
        EXPECT_EQ(verdict.length, wanted.length) << wanted.lines.back();
    }
}

// Each with what it becomes beside "http://host:80/a/b?c"; empty: nothing that is taken from there.
TEST(Urls, AreResolvedAndHostsToldApart) {
    static constexpr const char* kRows[][2] = {
        {"d", "http://host:80/a/d"},
        {"../../d/./e/..?f#g", "http://host:80/d/?f"},
        {"/x", "http://host:80/x"},
        {"?x", "http://host:80/a/b?x"},
        {"//other", "http://other/"},
        {"a b [2].\xc3\xbc|\\", "http://host:80/a/a%20b%20%5B2%5D.%C3%BC%7C%5C"},
        {"HTTPS://u:p@[FE80::1%25eth0]:8443?q", "https://u:p@[FE80::1%25eth0]:8443/?q"},
        {"file:///etc/passwd", ""},
        {"100%.mp3", "http://host:80/a/100%25.mp3"},
        {"http://u%20@[::1%zone]", "http://u%20@[::1%25zone]/"},
        {"http://[::1%25]/", ""},
        {"http://host%20/", ""},
        {"http://host\\@other/", ""},
        {"ftp://host/", ""},
        {"a:b", ""},
        {"http:///etc", ""},
        {"http://host:0/", ""},
        {"http://host:70000/", ""},
        {"http://a@b@c/", ""},
        {"http://a%2fb/", ""},
        {"http://[::1/", ""},
    };
    for (const auto& [reference, wanted] : kRows) {
        EXPECT_EQ(nuvio::resolve_url("http://host:80/a/b?c", reference).value_or(""), wanted);
    }
    EXPECT_EQ(nuvio::split_url("ws://[fe80::1%25eth0]")->host, "fe80::1%eth0");
    EXPECT_TRUE(nuvio::same_origin("http://HOST/a", "http://h%6Fst:80?b"));
    EXPECT_FALSE(nuvio::same_origin("http://host", "http://user@host:81"));
    EXPECT_FALSE(nuvio::same_origin("http://host@other", "http://host"));
}

}  // namespace
