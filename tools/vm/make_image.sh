#!/usr/bin/env bash
# Makes the disk of a virtual machine, a Debian 12 with its own kernel and the given packages:
#   make_image.sh FOLDER PACKAGE.deb...
# leaves disk.img, vmlinuz and initrd.img in the folder. The system below the packages is kept there
# and made anew when what it is made of changes. It is of the packages' architecture, whose programs must
# start here (tools/cross/emulate.sh). Needs root.
set -euo pipefail

here=$(dirname "$(realpath "$0")")
folder=$1
shift
architecture=$(dpkg-deb -f "$1" Architecture)
declare -A kernels=([amd64]=amd64 [armhf]=armmp-lpae)
kernel=linux-image-${kernels[$architecture]}
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

make_base() {
    local mirror
    mirror=$(sed -n 's/^URIs: *//p' /etc/apt/sources.list.d/debian.sources 2>/dev/null | head -n 1)
    [ -n "$mirror" ] || mirror=$(awk '$1 == "deb" {sub(/\[[^]]*\] */, ""); print $2; exit}' /etc/apt/sources.list)
    rm -rf --one-file-system base
    # shellcheck disable=SC2016  # the hooks expand $1
    mmdebstrap --quiet --mode=root --variant=apt --skip=cleanup/apt/lists,check/qemu \
        --architectures="$architecture" \
        --aptopt='Acquire::Languages "none"' --dpkgopt=force-unsafe-io \
        --dpkgopt='path-exclude=/usr/share/doc/*' --dpkgopt='path-exclude=/usr/share/man/*' \
        --dpkgopt='path-exclude=/usr/share/locale/*' \
        --include="$wanted" \
        --customize-hook='cd "$1" && chroot . apt-get -q download "$(chroot . apt-cache depends \
            '"$kernel"' | sed -n "s/^ *Depends: //p" | head -n 1)"' \
        bookworm base "$mirror"
    unpack_kernel
    make_initrd
}

# Debian's kernel with the modules that the machine's devices need. Not installed: its own initial
# disk and 400 MB of modules would take longer than all the rest.
unpack_kernel() {
    local modules="./lib/modules/*/kernel"
    dpkg-deb --fsys-tarfile base/linux-image-*.deb |
        tar -x -C base --wildcards --exclude="$modules/sound/soc" './boot/vmlinuz-*' \
            './lib/modules/*/modules.*' "$modules/arch" "$modules/crypto" "$modules/lib" \
            "$modules/drivers/block/virtio_blk.ko" \
            "$modules/drivers/leds/trigger/ledtrig-audio.ko" "$modules/drivers/media/mc" \
            "$modules/drivers/net/veth.ko" "$modules/drivers/usb/c*" "$modules/drivers/usb/host" \
            "$modules/drivers/virtio" "$modules/fs/*9p*" "$modules/fs/autofs" "$modules/fs/ext4" \
            "$modules/fs/fscache" "$modules/fs/jbd2" "$modules/fs/mbcache.ko" "$modules/fs/netfs" \
            "$modules/net/9p" "$modules/net/packet" "$modules/net/sched" "$modules/sound"
    rm base/linux-image-*.deb
    chroot base depmod "$(ls base/lib/modules)"
    mv base/boot/vmlinuz-* vmlinuz
}

# It finds the disk and goes on to it.
make_initrd() {
    local version
    version=$(ls base/lib/modules)
    rm -rf initrd
    mkdir -p initrd/{bin,dev,modules,root}
    cp base/bin/busybox initrd/bin
    {
        echo '#!/bin/busybox sh'
        echo '/bin/busybox mount -t devtmpfs dev /dev'
        for module in virtio_pci virtio_blk crc32c_generic ext4; do
            chroot base modprobe -S "$version" --show-depends "$module"
        done | awk '$1 == "insmod" && !seen[$2]++ {print $2}' | while read -r path; do
            cp "base$path" initrd/modules
            echo "/bin/busybox insmod /modules/${path##*/}"
        done
        echo 'while [ ! -b /dev/vda ]; do /bin/busybox sleep 0.1; done'
        echo '/bin/busybox mount -t ext4 /dev/vda /root'
        echo 'exec /bin/busybox switch_root /root /sbin/init'
    } >initrd/init
    chmod +x initrd/init
    (cd initrd && find . | bin/busybox cpio -o -H newc) | gzip -1 >initrd.img
}

key=$({ echo "$wanted $kernel"; declare -f make_base unpack_kernel make_initrd; } | sha256sum)
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
chroot root systemctl -q enable vm-test.service
# What this machine has no use for; each takes an emulated processor a second or so.
chroot root systemctl -q mask alsa-restore.service dev-hugepages.mount getty@tty1.service \
    modprobe@{configfs,dm_mod,drm,efi_pstore,fuse,loop}.service proc-sys-fs-binfmt_misc.automount \
    serial-getty@tty{S0,AMA0}.service sys-kernel-{debug,tracing}.mount systemd-logind.service \
    systemd-{binfmt,journal-flush,random-seed,update-utmp,update-utmp-runlevel}.service timers.target
echo vm >root/etc/hostname
echo "/dev/vda / ext4 defaults 0 1" >root/etc/fstab
rm -f disk.img
mkfs.ext4 -q -F -O ^has_journal -L vm -d root disk.img 2G
