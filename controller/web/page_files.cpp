#include "controller/web/page_files.h"

#include <algorithm>
#include <iterator>

// One a file, by the build: nuvio_page_index_html and nuvio_page_index_html_gz, each with its end.
// A name can't have the parentheses that a macro's arguments otherwise get.
// NOLINTBEGIN(bugprone-macro-parentheses)
#define NUVIO_PAGE_BYTES(name)    \
    extern "C" const char name[]; \
    extern "C" const char name##_end[];

#define NUVIO_PAGE_FILE(name)           \
    NUVIO_PAGE_BYTES(nuvio_page_##name) \
    NUVIO_PAGE_BYTES(nuvio_page_##name##_gz)
// NOLINTEND(bugprone-macro-parentheses)

NUVIO_PAGE_FILE(index_html)` declares what the linker has as
// nuvio_page_index_html and nuvio_page_index_html_gz, each with its end.
#define NUVIO_PAGE_BYTES(name)    \
    extern "C" const char name[]; \
    extern "C" const char name##_end[];

#define NUVIO_PAGE_FILE(name)           \
    NUVIO_PAGE_BYTES(nuvio_page_##name) \
    NUVIO_PAGE_BYTES(nuvio_page_##name##_gz)

    NUVIO_PAGE_FILE(index_html) NUVIO_PAGE_FILE(style_css) NUVIO_PAGE_FILE(app_js)
        NUVIO_PAGE_FILE(state_js) NUVIO_PAGE_FILE(devices_js) NUVIO_PAGE_FILE(library_js)
            NUVIO_PAGE_FILE(player_js) NUVIO_PAGE_FILE(elements_js) NUVIO_PAGE_FILE(worker_js)
                NUVIO_PAGE_FILE(icon_svg) NUVIO_PAGE_FILE(manifest_json)

                    namespace nuvio::controller {

    namespace {

    std::string_view between(const char* begin, const char* end) {
        return {begin, static_cast<size_t>(end - begin)};
    }

#define NUVIO_PAGE_ROW(path, type, name)                                 \
    PageFile {                                                           \
        path, type, between(nuvio_page_##name, nuvio_page_##name##_end), \
            between(nuvio_page_##name##_gz, nuvio_page_##name##_gz_end)  \
    }

    }  // namespace

    const PageFile* page_file(std::string_view path) {
        static const PageFile kFiles[] = {
            NUVIO_PAGE_ROW("/", "text/html; charset=utf-8", index_html),
            NUVIO_PAGE_ROW("/style.css", "text/css", style_css),
            NUVIO_PAGE_ROW("/app.js", "text/javascript", app_js),
            NUVIO_PAGE_ROW("/state.js", "text/javascript", state_js),
            NUVIO_PAGE_ROW("/devices.js", "text/javascript", devices_js),
            NUVIO_PAGE_ROW("/library.js", "text/javascript", library_js),
            NUVIO_PAGE_ROW("/player.js", "text/javascript", player_js),
            NUVIO_PAGE_ROW("/elements.js", "text/javascript", elements_js),
            NUVIO_PAGE_ROW("/worker.js", "text/javascript", worker_js),
            NUVIO_PAGE_ROW("/icon.svg", "image/svg+xml", icon_svg),
            NUVIO_PAGE_ROW("/manifest.json", "application/manifest+json", manifest_json),
        };
        const auto* found = std::ranges::find(kFiles, path, &PageFile::path);
        return found == std::end(kFiles) ? nullptr : found;
    }

}  // namespace nuvio::controller
