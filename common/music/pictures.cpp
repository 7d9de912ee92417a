#include "common/music/pictures.h"

#include <dirent.h>

#include <algorithm>
#include <iterator>
#include <memory>
#include <optional>
#include <utility>

#include "common/released_by.h"
#include "common/text.h"

namespace nuvio {

namespace {

// Smaller goes before; none: no picture.
std::optional<size_t> rank_of(std::string_view name) {
    size_t rank = 0;
    for (const std::string_view ending : {".jpg", ".jpeg", ".png", ".webp", ".gif"}) {
        for (const std::string_view stem : {"cover", "folder", "front"}) {
            ++rank;
            if (name.size() == stem.size() + ending.size() &&
                starts_with_ignoring_case(name, stem) && ends_with_ignoring_case(name, ending)) {
                return rank;
            }
        }
    }
    return std::nullopt;
}

}  // namespace

const PictureKind* picture_kind_of(std::string_view bytes) {
    static constexpr struct {
        size_t at;
        std::string_view magic;
        PictureKind kind;
    } kKinds[] = {{0, "\xFF\xD8\xFF", {"image/jpeg", ".jpg"}},
                  {0, "\x89PNG\r\n\x1A\n", {"image/png", ".png"}},
                  {0, "GIF8", {"image/gif", ".gif"}},
                  {8, "WEBP", {"image/webp", ".webp"}}};
    const auto* const found = std::ranges::find_if(kKinds, [bytes](const auto& row) {
        return bytes.size() > row.at && bytes.substr(row.at).starts_with(row.magic);
    });
    return found == std::end(kKinds) ? nullptr : &found->kind;
}

std::vector<std::string> pictures_in(UniqueFd folder) {
    const std::unique_ptr<DIR, ReleasedBy<closedir>> listing(fdopendir(folder.get()));
    if (listing == nullptr) {
        return {};
    }
    folder.release();  // the DIR's now
    std::vector<std::pair<size_t, std::string>> found;
    while (const dirent* entry = readdir(listing.get())) {
        if (const std::optional<size_t> rank = rank_of(entry->d_name)) {
            found.emplace_back(*rank, entry->d_name);
        }
    }
    // Of "Cover.jpg" and "cover.jpg" the latter.
    std::ranges::sort(found, [](const auto& a, const auto& b) {
        return a.first != b.first ? a.first < b.first : a.second > b.second;
    });
    std::vector<std::string> names;
    std::ranges::transform(found, std::back_inserter(names),
                           [](auto& picture) { return std::move(picture.second); });
    return names;
}

}  // namespace nuvio
