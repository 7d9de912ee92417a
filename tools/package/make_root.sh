#!/usr/bin/env bash
# Makes a folder into a minimal Debian 12 with the given packages installed by apt, that is with all
# they depend on, and a message bus and an Avahi daemon beside them:
#   make_root.sh FOLDER PACKAGE.deb...
# Needs root; the machine itself stays as it is.
set -euo pipefail

root=$1
shift
packages=()
for package in "$@"; do
    packages+=("$(realpath "$package")")
done
# The mirror this machine's own packages come from.
mirror=$(sed -n 's/^URIs: *//p' /etc/apt/sources.list.d/debian.sources 2>/dev/null | head -n 1)
[ -n "$mirror" ] || mirror=$(awk '$1 == "deb" {print $2; exit}' /etc/apt/sources.list)

rm -rf "$root"
mkdir -p "$(dirname "$root")"
# What the account is made with comes first, as apt would choose the whole of systemd for it.
mmdebstrap --quiet --mode=root --variant=apt \
    --include=dbus,avahi-daemon,systemd-standalone-sysusers \
    --customize-hook='mkdir "$1/packages"' \
    --customize-hook="copy-in ${packages[*]} /packages" \
    --customize-hook='chroot "$1" sh -c "apt-get install -q -y --no-install-recommends \
        /packages/*.deb"' \
    --customize-hook='rm -r "$1/packages"' \
    bookworm "$root" "$mirror"
