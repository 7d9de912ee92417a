################################################################################
#
# nuvio-connect
#
################################################################################

NUVIO_CONNECT_VERSION = 1.0.0
# The tree that this recipe lies in.
NUVIO_CONNECT_SITE = $(BR2_EXTERNAL_NUVIO_CONNECT_PATH)/../../..
NUVIO_CONNECT_SITE_METHOD = local
NUVIO_CONNECT_LICENSE = MIT
NUVIO_CONNECT_LICENSE_FILES = LICENSE
NUVIO_CONNECT_DEPENDENCIES = host-pkgconf alsa-lib avahi civetweb cjson expat \
	flac jpeg-turbo libcurl libmd libpng libseccomp libsndfile libsoxr \
	liburiparser libuv libwebsockets openssl sqlite systemd taglib webp zlib
NUVIO_CONNECT_CONF_OPTS = -DNUVIO_TESTS=OFF -DNUVIO_CONTROLLER=OFF -DCMAKE_INSTALL_PREFIX=/usr

NUVIO_CONNECT_COMPONENTS = daemon
ifeq ($(BR2_PACKAGE_NUVIO_CONNECT_CORE_LOCAL),y)
NUVIO_CONNECT_COMPONENTS += core reader
endif
ifeq ($(BR2_PACKAGE_NUVIO_CONNECT_HOST_LINUX),y)
NUVIO_CONNECT_COMPONENTS += host
endif

define NUVIO_CONNECT_INSTALL_TARGET_CMDS
	$(foreach component,$(NUVIO_CONNECT_COMPONENTS),\
		DESTDIR=$(TARGET_DIR) $(BR2_CMAKE) --install $(NUVIO_CONNECT_BUILDDIR) \
			--component $(component)
	)
endef

# As packaging/sysusers.conf has it.
define NUVIO_CONNECT_USERS
	nuvio-connect -1 nuvio-connect -1 * - - audio Nuvio Connect renderer
endef

# The settings hold a secret.
define NUVIO_CONNECT_PERMISSIONS
	/etc/nuvio-connect/settings.conf f 640 0 nuvio-connect - - - - -
endef

$(eval $(cmake-package))
