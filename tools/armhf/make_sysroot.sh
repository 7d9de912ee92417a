#!/usr/bin/env bash
# Extracts Debian's armhf libraries into a folder to cross-compile and emulate with:
#   make_sysroot.sh FOLDER
# Nothing in it is configured or run as a system, and the machine's own packages stay as they are.
set -euo pipefail

folder=$1
packages=(
    libc6-dev libstdc++-12-dev libuv1-dev libavahi-client-dev libcivetweb-dev libcjson-dev
    libasound2-dev libsndfile1-dev libsoxr-dev libsystemd-dev libcurl4-openssl-dev libexpat1-dev libtag1-dev
    libflac-dev libmd-dev libpng-dev libseccomp-dev libturbojpeg0-dev liburiparser-dev libwebp-dev libwebsockets-dev
    libssl-dev libsqlite3-dev libgtest-dev libgmock-dev
)
# The mirror this machine's own packages come from.
mirror=$(sed -n 's/^URIs: *//p' /etc/apt/sources.list.d/debian.sources 2>/dev/null | head -n 1)
[ -n "$mirror" ] || mirror=$(awk '$1 == "deb" {sub(/\[[^]]*\] */, ""); print $2; exit}' /etc/apt/sources.list)

# The list of packages is the folder's version: another list makes it anew.
stamp="$folder.packages"
[ -d "$folder" ] && [ "$(cat "$stamp" 2>/dev/null)" = "${packages[*]}" ] && exit 0
rm -rf "$folder" "$stamp"
mkdir -p "$(dirname "$folder")"
mmdebstrap --quiet --variant=extract --architectures=armhf \
    --include="$(IFS=,; echo "${packages[*]}")" bookworm "$folder" "$mirror"
echo "${packages[*]}" >"$stamp"
