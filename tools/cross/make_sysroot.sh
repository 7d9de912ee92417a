#!/usr/bin/env bash
# Extracts Debian's libraries for another architecture into a folder to cross-compile and emulate with:
#   make_sysroot.sh ARCHITECTURE FOLDER
# Nothing in it is configured or run as a system, and the machine's own packages stay as they are.
# FOLDER/DEBIAN has what the libraries' packages say of their versions, where dpkg-shlibdeps looks for it.
# Links that name a library of the machine's root name the folder's, or the linker takes the static one.
set -euo pipefail

architecture=$1
folder=$2
packages=(
    libc6-dev libstdc++-12-dev libuv1-dev libavahi-client-dev libcivetweb-dev libcjson-dev
    libasound2-dev libsndfile1-dev libsoxr-dev libsystemd-dev libcurl4-openssl-dev libexpat1-dev libtag1-dev
    libflac-dev libmd-dev libpng-dev libseccomp-dev libturbojpeg0-dev liburiparser-dev libwebp-dev libwebsockets-dev
    libssl-dev libsqlite3-dev libavcodec-dev libavformat-dev libgtest-dev libgmock-dev
)
# The mirror this machine's own packages come from.
mirror=$(sed -n 's/^URIs: *//p' /etc/apt/sources.list.d/debian.sources 2>/dev/null | head -n 1)
[ -n "$mirror" ] || mirror=$(awk '$1 == "deb" {sub(/\[[^]]*\] */, ""); print $2; exit}' /etc/apt/sources.list)

# What makes the folder is its version: anything else makes it anew.
version=$(sha256sum <"$0")
stamp="$folder.version"
[ -d "$folder" ] && [ "$(cat "$stamp" 2>/dev/null)" = "$version" ] && exit 0
rm -rf "$folder" "$stamp"
mkdir -p "$(dirname "$folder")"
# shellcheck disable=SC2016  # the hooks expand $1
mmdebstrap --quiet --variant=extract --architectures="$architecture" \
    --include="$(IFS=,; echo "${packages[*]}")" \
    --extract-hook='mkdir "$1/DEBIAN"; for package in "$1"/var/cache/apt/archives/*.deb; do
        for file in symbols shlibs; do
            dpkg-deb --ctrl-tarfile "$package" | tar -xO "./$file" 2>/dev/null >>"$1/DEBIAN/$file" || true
        done
    done' \
    --extract-hook='find "$1/usr/lib" -name "*.so" -lname "/*" | while read -r link; do
        ln -sfr "$1$(readlink "$link")" "$link"
    done' \
    bookworm "$folder" "$mirror"
echo "$version" >"$stamp"
