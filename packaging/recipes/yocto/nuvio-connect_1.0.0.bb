SUMMARY = "Nuvio Connect renderer"
DESCRIPTION = "Makes the device a Nuvio Connect renderer: gapless on ALSA, volume and mute in step"
LICENSE = "MIT"
LIC_FILES_CHKSUM = "file://LICENSE;md5=4a6afd1578538c1a4177d5c958f6fce0"

# The tree that this recipe was copied from.
SRC_URI = "git://${NUVIO_CONNECT_SOURCE};protocol=file;branch=main"
SRCREV = "${AUTOREV}"
PV = "1.0.0+git${SRCPV}"
S = "${WORKDIR}/git"

inherit cmake pkgconfig systemd useradd

DEPENDS = "alsa-lib avahi cjson civetweb curl expat flac libjpeg-turbo libmd libpng libseccomp libsndfile1 \
    libuv libwebp libwebsockets openssl soxr sqlite3 systemd taglib uriparser zlib"
EXTRA_OECMAKE = "-DNUVIO_TESTS=OFF -DNUVIO_CONTROLLER=OFF"

# Without one of them a package of the maker's own brings the library of this soname.
PACKAGECONFIG ??= "core-local host-linux"
PACKAGECONFIG[core-local] = ""
PACKAGECONFIG[host-linux] = ""

do_install() {
    for component in daemon ${@bb.utils.contains('PACKAGECONFIG', 'core-local', 'core reader', '', d)} \
            ${@bb.utils.contains('PACKAGECONFIG', 'host-linux', 'host', '', d)}; do
        DESTDIR="${D}" cmake --install "${B}" --component "$component"
    done
    if [ -e "${D}${sysconfdir}/nuvio-connect/settings.conf" ]; then
        # It holds a secret.
        chown root:nuvio-connect "${D}${sysconfdir}/nuvio-connect/settings.conf"
        chmod 640 "${D}${sysconfdir}/nuvio-connect/settings.conf"
    fi
}

USERADD_PACKAGES = "${PN}"
GROUPADD_PARAM:${PN} = "--system nuvio-connect"
USERADD_PARAM:${PN} = "--system --no-create-home --shell /sbin/nologin --gid nuvio-connect --groups audio nuvio-connect"
SYSTEMD_SERVICE:${PN} = "nuvio-connect.service"

PACKAGES =+ "${PN}-core-local ${PN}-host-linux"
RDEPENDS:${PN} += "avahi-daemon"
RRECOMMENDS:${PN} += "${PN}-core-local ${PN}-host-linux"
RDEPENDS:${PN}-host-linux += "bash dbus"
RPROVIDES:${PN}-core-local = "nuvio-connect-core"
RPROVIDES:${PN}-host-linux = "nuvio-connect-host"
CONFFILES:${PN}-host-linux = "${sysconfdir}/nuvio-connect/settings.conf"
FILES:${PN}-core-local = "${libdir}/libnuvio_connect.so.* ${libdir}/libnuvio_connect_channel.so.* \
    ${libexecdir}/nuvio-connect/nuvio-connect-fetcher ${libexecdir}/nuvio-connect/nuvio-connect-reader"
FILES:${PN}-host-linux = "${libdir}/libnuvio_host.so.* \
    ${libdir}/nuvio-connect/server_periods.so ${libdir}/nuvio-connect/server_periods.conf \
    ${bindir}/nuvio-connect-panel \
    ${sysconfdir}/nuvio-connect/settings.conf \
    ${datadir}/dbus-1/system.d/nuvio-connect.conf \
    ${datadir}/bash-completion/completions/nuvio-connect-panel \
    ${mandir}/man1/nuvio-connect-panel.1 \
    ${mandir}/man5/nuvio-connect-settings.5 \
    ${nonarch_libdir}/sysusers.d/nuvio-connect.conf"
FILES:${PN} = "${bindir}/nuvio-connect \
    ${systemd_system_unitdir}/nuvio-connect.service \
    ${systemd_system_unitdir}/nuvio-connect@.service \
    ${datadir}/bash-completion/completions/nuvio-connect \
    ${mandir}/man8/nuvio-connect.8"
