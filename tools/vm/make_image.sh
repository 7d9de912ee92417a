#!/usr/bin/env bash
# Makes the disk of a virtual machine, a Debian 12 with its own kernel and the given packages:
#   make_image.sh FOLDER PACKAGE.deb...
# leaves disk.img, vmlinuz and initrd.img in the folder. The system below the packages is kept there
# and made anew when what it is made of changes. Needs root.
set -euo pipefail

here=$(dirname "$(realpath "$0")")
folder=$1
shift
packages=()
for package in "$@"; do
    packages+=("$(realpath "$package")")
done
mkdir -p "$folder"
cd "$folder"

# What the base must have: the list, and what the packages depend on but one another.
wanted=$({
    sed '/^#/d' "$here/packages.txt"
    for package in "${packages[@]}"; do
        dpkg-deb -f "$package" Depends | tr , '\n' | sed 's/[|(].*//; s/ //g'
    done
} | grep -v '^nuvio-connect' | sort -u | paste -sd,)

# shellcheck disable=SC2016  # the hooks expand $1
make_base() {
    local mirror
    mirror=$(sed -n 's/^URIs: *//p' /etc/apt/sources.list.d/debian.sources 2>/dev/null | head -n 1)
    [ -n "$mirror" ] || mirror=$(awk '$1 == "deb" {sub(/\[[^]]*\] */, ""); print $2; exit}' /etc/apt/sources.list)
    rm -rf --one-file-system base
    # The disk is all that must be found before there is a root: a small initial one starts sooner.
    mmdebstrap --quiet --mode=root --variant=apt --skip=cleanup/apt/lists \
        --dpkgopt=force-unsafe-io \
        --dpkgopt='path-exclude=/usr/share/doc/*' --dpkgopt='path-exclude=/usr/share/man/*' \
        --dpkgopt='path-exclude=/usr/share/locale/*' \
        --include="$wanted" \
        --essential-hook='mkdir -p "$1/etc/initramfs-tools/conf.d"' \
        --essential-hook='echo MODULES=list >"$1/etc/initramfs-tools/conf.d/vm"' \
        --customize-hook='printf "virtio_pci\nvirtio_blk\next4\n" >>"$1/etc/initramfs-tools/modules"' \
        --customize-hook='chroot "$1" update-initramfs -u' \
        bookworm base "$mirror"
}

key=$({ echo "$wanted"; declare -f make_base; } | sha256sum)
if [ "$(cat base.key 2>/dev/null)" != "$key" ]; then
    rm -f base.key
    make_base
    echo "$key" >base.key
fi

rm -rf --one-file-system root
cp -a base root
mkdir root/packages
cp "${packages[@]}" root/packages
chroot root sh -c "DEBIAN_FRONTEND=noninteractive apt-get install -q -y --no-install-recommends \
    /packages/*.deb"
rm -r root/packages
cp -a "$here/files/." root
chown -R root:root root/etc/systemd/system root/etc/modprobe.d root/etc/modules-load.d root/usr/local/sbin
chroot root systemctl enable vm-test.service
echo vm >root/etc/hostname
echo "/dev/vda / ext4 defaults 0 1" >root/etc/fstab
cp root/boot/vmlinuz-* vmlinuz
cp root/boot/initrd.img-* initrd.img
rm -f disk.img
mkfs.ext4 -q -F -L vm -d root disk.img 2G
