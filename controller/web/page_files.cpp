#include "controller/web/page_files.h"

#include <algorithm>
#include <cstddef>
#include <iterator>

// What the build has made of each file: nuvio_page_index_html and nuvio_page_index_html_gz, each
// with its end. A name can't have the parentheses that a macro's arguments otherwise get.
// NOLINTBEGIN(bugprone-macro-parentheses)
#define NUVIO_PAGE_FILES(row)                                                                     \
    row("/", "text/html; charset=utf-8", index_html) row("/style.css", "text/css", style_css)     \
        row("/app.js", "text/javascript", app_js) row("/worker.js", "text/javascript", worker_js) \
            row("/icon.svg", "image/svg+xml", icon_svg)                                           \
                row("/manifest.json", "application/manifest+json", manifest_json)                 \
                    row("/icon-192.png", "image/png", icon_192_png)                               \
                        row("/icon-512.png", "image/png", icon_512_png)                           \
                            row("/maskable-192.png", "image/png", maskable_192_png)               \
                                row("/maskable-512.png", "image/png", maskable_512_png)

#define NUVIO_DECLARE(path, type, name)              \
    extern "C" const char nuvio_page_##name[];       \
    extern "C" const char nuvio_page_##name##_end[]; \
    extern "C" const char nuvio_page_##name##_gz[];  \
    extern "C" const char nuvio_page_##name##_gz_end[];

#define NUVIO_ROW(path, type, name)                                           \
    PageFile{path, type, between(nuvio_page_##name, nuvio_page_##name##_end), \
             between(nuvio_page_##name##_gz, nuvio_page_##name##_gz_end)},
// NOLINTEND(bugprone-macro-parentheses)

NUVIO_PAGE_FILES(NUVIO_DECLARE)

namespace nuvio::controller {

namespace {

std::string_view between(const char* begin, const char* end) {
    return {begin, static_cast<size_t>(end - begin)};
}

}  // namespace

const PageFile* page_file(std::string_view path) {
    static const PageFile kFiles[] = {NUVIO_PAGE_FILES(NUVIO_ROW)};
    const auto* found = std::ranges::find(kFiles, path, &PageFile::path);
    return found == std::end(kFiles) ? nullptr : found;
}

}  // namespace nuvio::controller
