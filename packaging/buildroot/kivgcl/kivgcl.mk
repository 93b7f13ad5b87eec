################################################################################
#
# kivgcl
#
################################################################################

KIVGCL_VERSION = 1.0.0
# The sources are the tree that this file belongs to.
KIVGCL_SITE = $(BR2_EXTERNAL_KIVGCL_PATH)/../..
KIVGCL_SITE_METHOD = local
KIVGCL_OVERRIDE_SRCDIR_RSYNC_EXCLUSIONS = --exclude=/build
KIVGCL_LICENSE = PROPRIETARY
KIVGCL_REDISTRIBUTE = NO
KIVGCL_INSTALL_STAGING = YES
KIVGCL_SUPPORTS_IN_SOURCE_BUILD = NO

KIVGCL_CONF_OPTS = -DKIVGCL_BUILD_TESTS=OFF -DKIVGCL_BUILD_EXAMPLES=OFF
KIVGCL_COMPONENTS = Runtime

ifeq ($(BR2_PACKAGE_KIVGCL_VORTRACE),y)
KIVGCL_COMPONENTS += Sink
endif

ifeq ($(BR2_PACKAGE_KIVGCL_TOOLS),y)
KIVGCL_CONF_OPTS += -DKIVGCL_BUILD_TESTING_LIBRARY=ON
KIVGCL_COMPONENTS += Tools
else
KIVGCL_CONF_OPTS += -DKIVGCL_BUILD_TESTING_LIBRARY=OFF
endif

define KIVGCL_INSTALL_TARGET_CMDS
	$(foreach component,$(KIVGCL_COMPONENTS), \
		$(TARGET_MAKE_ENV) DESTDIR=$(TARGET_DIR) $(BR2_CMAKE) \
			--install $(KIVGCL_BUILDDIR) --component $(component)$(sep))
endef

$(eval $(cmake-package))
