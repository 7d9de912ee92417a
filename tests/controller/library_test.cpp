// The library on real files: what can be opened, what is found, and that it follows the disk.
#include "controller/library/library.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <mutex>

#include "local_core/audio_files.h"
#include "reader/harmful_files.h"
#include "temp_dir.h"

namespace nuvio::controller {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

TEST(MusicFoldersTest, nothing_outside_of_them_can_be_had) {
    const TempDir dir;
    dir.write("music/album/a.wav", "sound");
    dir.write("secret/b.wav", "secret");
    std::filesystem::create_symlink(dir / "secret/b.wav", dir / "music/link.wav");
    std::filesystem::create_directory_symlink(dir / "secret", dir / "music/linked");
    std::filesystem::create_directory_symlink("..", dir / "music/up");
    ASSERT_EQ(mkfifo((dir / "music/pipe.wav").c_str(), 0600), 0);
    std::filesystem::create_directory_symlink(dir / "music", dir / "named");

    const MusicFolders folders({dir / "named", dir / "missing"});
    EXPECT_EQ(folders.path(0), dir / "named");
    EXPECT_TRUE(folders.open_file(0, "album/a.wav"));
    EXPECT_TRUE(folders.open_folder(0, "album"));
    for (const char* path : {"link.wav", "linked/b.wav", "up/secret/b.wav", "../secret/b.wav",
                             "album/../../secret/b.wav", "pipe.wav", "album", "", "/etc/passwd",
                             "album//a.wav", "album/none.wav"}) {
        EXPECT_FALSE(folders.open_file(0, path)) << path;
    }
    EXPECT_FALSE(folders.open_file(0, std::string("album/a.wav\0", 12)));
    EXPECT_FALSE(folders.open_folder(0, "linked"));

    EXPECT_THAT(folders.places_of(dir / "secret/b.wav"), IsEmpty());
    EXPECT_THAT(folders.places_of(dir / "music/link.wav"), IsEmpty());
    EXPECT_EQ(folders.places_of(dir / "named/album/a.wav").at(0).below, "album/a.wav");
}

// A library whose scans can be waited for.
class LibraryTest : public testing::Test {
  protected:
    void open(const std::vector<std::string>& folders) {
        m_library = std::make_unique<Library>(folders, m_dir.path(), [this] {
            const std::scoped_lock lock(m_mutex);
            m_on_change.notify_all();
        });
    }
    bool wait_for(const std::function<bool()>& condition) {
        std::unique_lock lock(m_mutex);
        const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(30);
        while (!condition()) {
            if (m_on_change.wait_until(lock, end) == std::cv_status::timeout) {
                return false;
            }
        }
        return true;
    }
    bool wait_for_tracks(int64_t count) {
        return wait_for([&] {
            const ScanProgress progress = m_library->progress();
            return progress.tracks == count && !progress.is_scanning;
        });
    }
    // Of the first album.
    std::string cover(CoverSize size) {
        const auto found = m_library->open_cover(m_library->view().albums({0, 1}).at(0).id, size);
        std::string bytes(found.cover ? found.cover->size : 0, '\0');
        return bytes.empty() || pread(found.cover->file.get(), bytes.data(), bytes.size(), 0) ==
                                    static_cast<ssize_t>(bytes.size())
                   ? bytes
                   : "cut";
    }
    std::vector<Track> found_tracks(const std::string& text) {
        return m_library->view().search(text, {0, 50}).tracks;
    }
    std::vector<std::string> found(const std::string& text) {
        std::vector<std::string> titles;
        for (const Track& track : found_tracks(text)) {
            titles.push_back(track.title);
        }
        return titles;
    }

    const TempDir m_dir;
    std::mutex m_mutex;
    std::condition_variable m_on_change;
    std::unique_ptr<Library> m_library;
};

TEST_F(LibraryTest, words_are_found_by_their_beginnings_and_nothing_else_is_asked_of_the_index) {
    m_dir.write("music/Café Noir/01 Don't Stop.wav", "x");
    m_dir.write("music/Café Noir/02 Stopover.wav", "x");
    m_dir.write("music/Other/Rain \xE2\x80\x94 Sun.wav", "x");
    m_dir.write("music/Other/notes.txt", "x");
    m_dir.write("music/.hidden/a.wav", "x");
    open({m_dir / "music"});
    ASSERT_TRUE(wait_for_tracks(3));

    EXPECT_THAT(found("sto"), UnorderedElementsAre("01 Don't Stop", "02 Stopover"));
    EXPECT_THAT(found("CAFE stop"), UnorderedElementsAre("01 Don't Stop", "02 Stopover"));
    EXPECT_THAT(found("don't"), ElementsAre("01 Don't Stop"));
    EXPECT_THAT(found("rain\xE2\x80\x94sun"), ElementsAre("Rain \xE2\x80\x94 Sun"));
    for (const char* text :
         {"\"", "stop\"* OR rain*", "NEAR(stop", "title:stop", "(", "-", "\xFF", "", "nothing"}) {
        EXPECT_THAT(found(text), IsEmpty()) << text;
    }
    const std::vector<Album> albums = m_library->view().albums({0, 10});
    ASSERT_EQ(albums.size(), 2U);
    EXPECT_EQ(albums[0].title, "Café Noir");
    EXPECT_EQ(albums[0].track_count, 2);
}

TEST_F(LibraryTest, the_best_is_found_first_by_whatever_people_type) {
    for (const char* path :
         {"Łódź/Rain Dogs", "Łódź/Große Rain", "Łódź/Rain", "Łódź/Rainbow", "Sørfjord/Æon",
          "東京の夜/夜のドライブ", "Rain/Sun", "Łódź/Trainspotting"}) {
        m_dir.write("music/" + std::string(path) + ".wav", "x");
    }
    open({m_dir / "music"});
    ASSERT_TRUE(wait_for_tracks(8));
    EXPECT_THAT(found("rain"),
                ElementsAre("Rain", testing::AnyOf("Rain Dogs", "Rainbow"),
                            testing::AnyOf("Rain Dogs", "Rainbow"), "Große Rain", "Sun"));
    EXPECT_THAT(found("grosse"), ElementsAre("Große Rain"));
    EXPECT_THAT(found("lodz rain dogs"), ElementsAre("Rain Dogs"));
    EXPECT_THAT(found("sorfjord aeon"), ElementsAre("Æon"));
    EXPECT_THAT(found("夜"), ElementsAre("夜のドライブ"));
    EXPECT_THAT(found("京の"), ElementsAre("夜のドライブ")) << "inside a word";
    EXPECT_THAT(found("京夜"), IsEmpty());
    const Found page = m_library->view().search("rain", {1, 2}, LibraryView::Kind::tracks);
    EXPECT_EQ(page.tracks.size(), 2U);
    EXPECT_EQ(page.track_count, 5);
    EXPECT_TRUE(page.albums.empty() && page.album_count == 1);
}

TEST_F(LibraryTest, it_follows_the_disk_without_being_asked) {
    m_dir.write("music/a/1.wav", "x");
    m_dir.write("music/a/2.wav", "x");
    open({m_dir / "music"});
    ASSERT_TRUE(wait_for_tracks(2));
    const int64_t id = m_library->view().search("1", {0, 1}).tracks.at(0).id;

    m_dir.write("music/b/deep/3.wav", "x");
    ASSERT_TRUE(wait_for_tracks(3)) << "a new folder";
    m_dir.write("music/b/deep/4.wav", "x");
    ASSERT_TRUE(wait_for_tracks(4)) << "a new file in it";
    std::filesystem::remove(m_dir / "music/a/2.wav");
    ASSERT_TRUE(wait_for_tracks(3)) << "a file less";
    const int64_t left = m_library->view().tracks_at(m_dir / "music", "b/deep/4.wav").at(0).id;
    std::filesystem::rename(m_dir / "music/b", m_dir / "music/c");
    ASSERT_TRUE(wait_for(
        [&] { return !m_library->view().tracks_at(m_dir / "music", "c/deep/3.wav").empty(); }));
    m_dir.write("music/c/deep/5.wav", "x");
    ASSERT_TRUE(wait_for_tracks(4)) << "the folder under its new name is followed";
    EXPECT_FALSE(m_library->view().track(left)) << "its number is not given to another";
    std::filesystem::rename(m_dir / "music/c", m_dir / "elsewhere");
    ASSERT_TRUE(wait_for_tracks(1)) << "a folder that has left";
    std::filesystem::create_hard_link(m_dir / "elsewhere/deep/5.wav", m_dir / "music/a/2.wav");
    ASSERT_TRUE(wait_for_tracks(2)) << "a hard link";
    m_dir.write("music/a/1.wav", "longer");
    m_library->request_scan();
    ASSERT_TRUE(wait_for([&] { return m_library->progress().revision > 0; }));
    EXPECT_EQ(m_library->view().search("1", {0, 1}).tracks.at(0).id, id)
        << "a changed file is the same";
}

TEST_F(LibraryTest, what_it_knew_is_there_at_the_next_start_unless_it_is_damaged_or_not_named) {
    m_dir.write("one/1.wav", "x");
    m_dir.write("two/2.wav", "x");
    open({m_dir / "one", m_dir / "two"});
    ASSERT_TRUE(wait_for_tracks(2));
    const int64_t id = m_library->view().search("1", {0, 1}).tracks.at(0).id;
    m_library.reset();
    open({m_dir / "one"});
    ASSERT_TRUE(wait_for_tracks(1));
    EXPECT_EQ(m_library->view().track(id)->title, "1");
    EXPECT_FALSE(m_library->select("/etc").failure.empty());
    m_library.reset();
    m_dir.write("library.db", std::string(8192, 'x'));
    open({m_dir / "one"});
    EXPECT_TRUE(wait_for_tracks(1));
    EXPECT_FALSE(m_library->view().track(id)) << "a device's queue means what was there before";
}

TEST_F(LibraryTest, one_that_is_damaged_while_it_runs_is_made_anew_and_said) {
    m_dir.write("one/1.wav", "x");
    open({m_dir / "one"});
    ASSERT_TRUE(wait_for_tracks(1));
    const int64_t id = m_library->view().search("1", {0, 1}).tracks.at(0).id;
    for (const std::string& damaged : {std::string(8192, 'x'), std::string()}) {
        Database(m_dir / "library.db").run("PRAGMA wal_checkpoint(TRUNCATE)");
        m_dir.write("library.db", damaged);
        {
            const std::scoped_lock nothing_goes_on(m_mutex);
            EXPECT_THROW(m_library->view().track(id), DatabaseError);
            EXPECT_THAT(m_library->progress().failure, testing::StartsWith("The library is read"));
        }
        ASSERT_TRUE(wait_for([&] { return m_library->progress().failure.empty(); }));
        EXPECT_EQ(found("1").size(), 1U);
        EXPECT_FALSE(m_library->view().track(id));
    }
    m_dir.write("one/2.wav", "x");
    EXPECT_TRUE(wait_for_tracks(2)) << "it is followed";
    m_library.reset();

    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    const rlimit none{0, limit.rlim_max};
    setrlimit(RLIMIT_NOFILE, &none);
    try {
        const Catalogue catalogue(m_dir / "library.db");
        ADD_FAILURE() << "opened without descriptors";
    } catch (const DatabaseError& error) {
        EXPECT_FALSE(error.is_damage()) << "what passes costs no library: " << error.what();
    }
    setrlimit(RLIMIT_NOFILE, &limit);
    EXPECT_TRUE(std::filesystem::exists(m_dir / "library.db"));
}

TEST_F(LibraryTest, a_disk_may_be_away_for_a_while_and_is_seen_when_it_comes) {
    if (unshare(CLONE_NEWNS) != 0 || mount("", "/", "", MS_REC | MS_PRIVATE, "") != 0) {
        GTEST_SKIP() << "no mount namespaces here";
    }
    const std::string disk = m_dir / "a disk";
    const std::string place = m_dir / "place for it";
    std::filesystem::create_directory(disk);
    std::filesystem::create_directory(place);
    ASSERT_EQ(mount("", disk.c_str(), "tmpfs", 0, ""), 0);
    m_dir.write("a disk/a/1.wav", "x");
    m_dir.write("other/3.wav", "x");
    ASSERT_EQ(mount(disk.c_str(), place.c_str(), "", MS_BIND, ""), 0);
    open({place + "/", m_dir / "other"});
    ASSERT_TRUE(wait_for_tracks(2));
    const int64_t id = m_library->view().tracks_at(place, "a/1.wav").at(0).id;

    ASSERT_EQ(umount(place.c_str()), 0) << "nothing holds it";
    m_library.reset();
    std::filesystem::remove_all(m_dir / "other");
    open({place, m_dir / "other"});
    ASSERT_TRUE(wait_for_tracks(2)) << "an empty mount point, and a folder that is not there";
    m_dir.write("a disk/a/2.wav", "x");
    ASSERT_EQ(mount(disk.c_str(), place.c_str(), "", MS_BIND, ""), 0);
    ASSERT_TRUE(wait_for_tracks(3)) << "it came";
    EXPECT_TRUE(m_library->open_track(id));
    m_dir.write("a disk/a/4.wav", "x");
    EXPECT_TRUE(wait_for_tracks(4)) << "it is followed";
    m_library.reset();
    umount(place.c_str());
    umount(disk.c_str());
}

TEST_F(LibraryTest, an_album_shows_the_first_picture_beside_it_that_is_one) {
    m_dir.write("music/a/1.AIFC", "x");
    m_dir.write("music/a/cover.jpg", "");
    m_dir.write("music/a/Front.GIF", "GIF89a");
    m_dir.write("secret.jpg", "\xFF\xD8\xFF");
    std::filesystem::create_symlink(m_dir / "secret.jpg", m_dir / "music/a/folder.jpg");
    open({m_dir / "music"});
    ASSERT_TRUE(wait_for_tracks(1));
    EXPECT_EQ(cover(CoverSize::original), "GIF89a");
    EXPECT_EQ(cover(CoverSize::list), "GIF89a") << "what can't be made smaller is sent as it is";
}

TEST_F(LibraryTest, a_file_that_ends_its_reader_is_listed_said_and_left_alone) {
    m_dir.write("music/a/1.wav", "x");
    m_dir.write("music/a/bad.m4a", m4a_of_nested_atoms(500'000));
    m_dir.write("music/a/z.wav", "x");
    for (const int64_t changed : {3, 0}) {
        open({m_dir / "music"});
        ASSERT_TRUE(wait_for_tracks(3));
        EXPECT_EQ(m_library->progress().files_changed, changed);
        EXPECT_EQ(m_library->progress().unreadable, 1);
        const std::vector<UnreadableFile> unreadable = m_library->view().unreadable(10);
        ASSERT_EQ(unreadable.size(), 1U);
        EXPECT_EQ(unreadable[0].path, m_dir / "music/a/bad.m4a");
        EXPECT_THAT(unreadable[0].failure, testing::StartsWith("its reader was ended by signal"));
        EXPECT_EQ(cover(CoverSize::list), "");
        m_library.reset();
    }
}

TEST_F(LibraryTest, the_tracks_of_a_sheet_are_tracks_and_keep_their_numbers) {
    const auto sheet = [](const std::vector<std::string>& begins) {
        std::string text = "TITLE Suite\nPERFORMER Band\nREM DATE 1999\nFILE whole.wav WAVE\n";
        for (size_t i = 0; i < begins.size(); ++i) {
            text += "TRACK " + std::to_string(i + 1) + " AUDIO\nTITLE Part" +
                    std::to_string(i + 1) + "\nINDEX 01 " + begins[i] + "\n";
        }
        return text;
    };
    const auto titles = [this] {
        std::vector<std::string> found;
        for (const Playable& item : m_library->select(m_dir / "music/a").items) {
            found.push_back(item.track->title + " " + std::to_string(item.track->duration_ms));
        }
        return found;
    };
    m_dir.write("music/a/whole.cue", sheet({"00:00:00", "00:01:00", "00:02:37"}));
    write_audio(m_dir, "music/a/Whole.FLAC", 3 * 44100, SF_FORMAT_FLAC | SF_FORMAT_PCM_16);
    std::vector<int64_t> ids;
    for (const int64_t changed : {1, 0}) {
        m_library.reset();
        open({m_dir / "music"});
        ASSERT_TRUE(wait_for_tracks(3));
        EXPECT_EQ(m_library->progress().files_changed, changed);
        EXPECT_THAT(titles(), ElementsAre("Part1 1000", "Part2 1493", "Part3 506"));
    }
    const Album album = m_library->view().albums({0, 1}).at(0);
    EXPECT_TRUE(album.title == "Suite" && album.artist == "Band" && album.year == 1999);
    const Track second = m_library->view().search("part2 band 1999", {0, 1}).tracks.at(0);
    EXPECT_EQ(m_library->view().search("1999", {0, 1}).albums.size(), 1U);
    EXPECT_EQ(second.section, (Section{1'000'000, 2'493'333}));
    EXPECT_EQ(m_library->select(m_dir / "music/a/whole.cue").items.size(), 3U);
    EXPECT_EQ(m_library->own_lists().save("Part", m_library->entries_of({{second.id, "", ""}})),
              "");
    const Selection part = m_library->select("playlist:Part");
    EXPECT_TRUE(part.items.size() == 1 && part.items[0].track->id == second.id);

    m_dir.write("music/a/whole.cue", sheet({"00:00:00", "00:01:70"}));
    ASSERT_TRUE(wait_for_tracks(2)) << "another sheet";
    EXPECT_THAT(titles(), ElementsAre("Part1 1933", "Part2 1066"));
    EXPECT_EQ(m_library->view().track(second.id)->duration_ms, 1066) << "it has its number still";
    EXPECT_THAT(found("part3"), IsEmpty());
    m_dir.write("music/a/whole.cue", sheet({"00:00:00", "00:03:00"}));
    ASSERT_TRUE(wait_for_tracks(1)) << "a sheet of another file";
    EXPECT_THAT(titles(), ElementsAre("Whole 3000"));
}

TEST_F(LibraryTest, a_playlist_of_the_folders_plays_what_it_names_of_them) {
    m_dir.write("music/a/1.wav", "x");
    m_dir.write("secret/2.wav", "x");
    m_dir.write("music/list.m3u8",
                "#EXTINF:1,Radio\nhttp://radio.example/x\na/1.wav\n../secret/2.wav\n" +
                    (m_dir / "music/a/1.wav") + "\n");
    open({m_dir / "music"});
    ASSERT_TRUE(wait_for_tracks(1));
    const int64_t folder = m_library->view().folder_at(m_dir / "music", "").value_or(0);
    const auto listed = m_library->playlists_in(folder);
    ASSERT_EQ(listed.size(), 1U);
    EXPECT_EQ(listed[0].name, "list.m3u8");
    const Selection list = m_library->select(listed[0].what);
    ASSERT_EQ(list.items.size(), 3U);
    EXPECT_EQ(list.items[0].url, "http://radio.example/x");
    EXPECT_EQ(list.items[0].title, "Radio");
    EXPECT_EQ(list.items[1].track->below, "a/1.wav");
    EXPECT_EQ(list.items[2].track->below, "a/1.wav");
    EXPECT_EQ(m_library->select(m_dir / "music/a").items.size(), 1U);
    EXPECT_EQ(m_library->select("search:a").items.size(), 1U);
    EXPECT_FALSE(m_library->select("album:999").failure.empty());
    EXPECT_FALSE(m_library->select("nonsense").failure.empty());
    std::string long_list;
    for (int i = 0; i < 20'000; ++i) {
        long_list += "http://x/\n";
    }
    m_dir.write("music/long.m3u", long_list);
    EXPECT_EQ(m_library->select(m_dir / "music/long.m3u").items.size(), 20'000U);
    m_dir.write("music/long.m3u", long_list + "a/1.wav\n");
    EXPECT_EQ(m_library->select(m_dir / "music/long.m3u").failure, Library::kTooMany);
}

TEST_F(LibraryTest, albums_are_listed_as_asked_and_those_heard_outlast_the_library) {
    using Order = LibraryView::Order;
    const auto now = std::filesystem::file_time_type::clock::now();
    int hours = 0;
    const auto write = [&](const std::string& album) {
        m_dir.write("music/" + album + "/" + album + ".wav", "x");
        std::filesystem::last_write_time(m_dir / ("music/" + album + "/" + album + ".wav"),
                                         now - std::chrono::hours(++hours));
    };
    for (const char* album : {"ant", "Cat", "Bee"}) {
        write(album);
    }
    open({m_dir / "music"});
    ASSERT_TRUE(wait_for_tracks(3));
    const auto titles = [](const std::vector<Album>& albums) {
        std::vector<std::string> all;
        std::ranges::transform(albums, std::back_inserter(all), &Album::title);
        return all;
    };
    const auto listed = [&](Order order, const char* from = "") {
        return titles(m_library->view().albums({0, 9}, {order, from}));
    };
    EXPECT_THAT(listed(Order::title), ElementsAre("ant", "Bee", "Cat"));
    EXPECT_THAT(listed(Order::title, "B"), ElementsAre("Bee", "Cat"));
    EXPECT_THAT(listed(Order::added, "x"), ElementsAre("ant", "Cat", "Bee"));
    write("Dog");
    ASSERT_TRUE(wait_for_tracks(4));
    EXPECT_THAT(listed(Order::added), ElementsAre("Dog", "ant", "Cat", "Bee"));
    for (const char* name : {"cat", "bee", "cat", "bee", "bee"}) {
        m_library->note_heard(found_tracks(name).at(0));
    }
    for (const char* name : {"ant", "dog", "bee"}) {
        const Track track = found_tracks(name).at(0);
        EXPECT_EQ(m_library->set_favourite("track:" + std::to_string(track.id), true), "");
        EXPECT_EQ(m_library->set_favourite("album:" + std::to_string(track.album_id), true), "");
    }
    const Track dog = found_tracks("dog").at(0);
    EXPECT_EQ(m_library->set_favourite("track:" + std::to_string(dog.id), false), "");
    EXPECT_EQ(m_library->set_favourite("album:" + std::to_string(dog.album_id), false), "");
    EXPECT_NE(m_library->set_favourite("album:999", true), "");
    m_library.reset();
    m_dir.write("library.db", std::string(8192, 'x'));
    open({m_dir / "music"});
    ASSERT_TRUE(wait_for_tracks(4));
    EXPECT_THAT(titles(m_library->favourite_albums({0, 9})), ElementsAre("Bee", "ant"));
    EXPECT_EQ(m_library->favourite_tracks({0, 9}).at(1).title, "ant");
    EXPECT_EQ(m_library->select("favourites:tracks").items.size(), 2U);
    EXPECT_TRUE(m_library->is_favourite(found_tracks("bee").at(0)));
    EXPECT_FALSE(m_library->is_favourite_album(found_tracks("dog")));
    EXPECT_THAT(titles(m_library->albums_heard({0, 9})), ElementsAre("Bee", "Cat"));
    EXPECT_THAT(titles(m_library->albums_heard({1, 9})), ElementsAre("Cat"));
}

TEST_F(LibraryTest, own_lists_are_files_that_no_name_leads_out_of) {
    m_dir.write("music/a/two.wav", "x");
    m_dir.write("music/a/Evening mix.m3u", "two.wav");
    open({m_dir / "music"});
    ASSERT_TRUE(wait_for_tracks(1));
    OwnLists& lists = m_library->own_lists();
    const int64_t two = found_tracks("two").at(0).id;
    const auto entries =
        m_library->entries_of({{two, "", ""}, {999, "", "gone"}, {0, "http://r.example/", "A\nB"}});
    for (const char* name : {"", "..", " . "}) {
        EXPECT_NE(lists.save(name, entries), "") << name;
    }
    EXPECT_EQ(lists.save("../Evening/\n1", entries), "");
    EXPECT_NE(lists.save("/Evening/ 1", entries), "") << "there is one";
    EXPECT_EQ(lists.rename("-Evening- 1", "Evening"), "");
    const Selection evening = m_library->select("search:evening");
    ASSERT_EQ(evening.items.size(), 2U);
    EXPECT_EQ(evening.items[0].track->id, two);
    EXPECT_EQ(evening.items[1].title, "A B");
    EXPECT_EQ(lists.add_station("Evening FM", "http://fm.example/"), "");
    for (const char* url : {"file:///etc/passwd", "http://x/ y", "http://x/\n#", ""}) {
        EXPECT_NE(lists.add_station("No", url), "") << url;
    }
    const Found found = m_library->search("even", {1, 5}, LibraryView::Kind::playlists);
    ASSERT_EQ(found.playlists.size(), 2U);
    EXPECT_EQ(found.playlists[0].what, "station:Evening FM");
    EXPECT_EQ(found.playlists[1].what, m_dir / "music/a/Evening mix.m3u");
    EXPECT_FALSE(m_library->select("playlist:../stations").failure.empty());
}

}  // namespace
}  // namespace nuvio::controller
