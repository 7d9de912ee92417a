# The libraries the project calls, as imported targets PkgConfig::* and civetweb.

find_package(PkgConfig REQUIRED)
pkg_check_modules(UV REQUIRED IMPORTED_TARGET libuv>=1.40)
pkg_check_modules(AVAHI REQUIRED IMPORTED_TARGET avahi-client)
pkg_check_modules(CJSON REQUIRED IMPORTED_TARGET libcjson)
pkg_check_modules(ALSA REQUIRED IMPORTED_TARGET alsa)
pkg_check_modules(SNDFILE REQUIRED IMPORTED_TARGET sndfile)
pkg_check_modules(CURL REQUIRED IMPORTED_TARGET libcurl>=7.87)
pkg_check_modules(TAGLIB REQUIRED IMPORTED_TARGET taglib>=1.12)
pkg_check_modules(JPEG REQUIRED IMPORTED_TARGET libturbojpeg)
pkg_check_modules(PNG REQUIRED IMPORTED_TARGET libpng>=1.6)
pkg_check_modules(WEBP REQUIRED IMPORTED_TARGET libwebp>=1.0)
pkg_check_modules(SECCOMP REQUIRED IMPORTED_TARGET libseccomp>=2.5)
pkg_check_modules(EXPAT REQUIRED IMPORTED_TARGET expat)
pkg_check_modules(SQLITE REQUIRED IMPORTED_TARGET sqlite3>=3.38)
pkg_check_modules(WEBSOCKETS REQUIRED IMPORTED_TARGET libwebsockets>=4.1)
pkg_check_modules(CRYPTO REQUIRED IMPORTED_TARGET libcrypto>=3.0)
# Of a module that a device may leave out.
pkg_check_modules(FFMPEG IMPORTED_TARGET libavformat libavcodec libavutil)
pkg_check_modules(SYSTEMD REQUIRED IMPORTED_TARGET libsystemd)
find_package(Threads REQUIRED)

# CivetWeb comes without a pkg-config file.
find_path(CIVETWEB_INCLUDE_DIR civetweb.h REQUIRED)
find_library(CIVETWEB_LIBRARY civetweb REQUIRED)
add_library(civetweb INTERFACE)
target_include_directories(civetweb SYSTEM INTERFACE ${CIVETWEB_INCLUDE_DIR})
target_link_libraries(civetweb INTERFACE ${CIVETWEB_LIBRARY})
