#!/usr/bin/env bash
# Makes a folder into a minimal Debian 12 with systemd, a message bus and an Avahi daemon, and installs
# the given packages there with apt, that is with all they depend on:
#   make_root.sh FOLDER PACKAGE.deb...
# It is of the packages' architecture, emulated where this is not the machine's. Needs root; the machine
# itself stays as it is.
set -euo pipefail

here=$(dirname "$(realpath "$0")")
root=$1
shift
architecture=$(dpkg-deb -f "$1" Architecture)
packages=()
for package in "$@"; do
    packages+=("$(realpath "$package")")
done
# The mirror this machine's own packages come from.
mirror=$(sed -n 's/^URIs: *//p' /etc/apt/sources.list.d/debian.sources 2>/dev/null | head -n 1)
[ -n "$mirror" ] || mirror=$(awk '$1 == "deb" {sub(/\[[^]]*\] */, ""); print $2; exit}' /etc/apt/sources.list)

rm -rf --one-file-system "$root"
mkdir -p "$(dirname "$root")"
# shellcheck disable=SC2016  # the hooks expand $1
"$here/../cross/emulate.sh" "$architecture" \
    mmdebstrap --quiet --mode=root --skip=check/qemu --architectures="$architecture" \
    --variant=apt --dpkgopt=force-unsafe-io \
    --include=avahi-daemon,dbus,systemd \
    --customize-hook='mkdir "$1/packages"' \
    --customize-hook="copy-in ${packages[*]} /packages" \
    --customize-hook='chroot "$1" sh -c "apt-get install -q -y --no-install-recommends \
        /packages/*.deb"' \
    --customize-hook='rm -r "$1/packages"' \
    bookworm "$root" "$mirror"
