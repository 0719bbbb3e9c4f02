################################################################################
#
# cloud_msg
#
################################################################################

CLOUD_MSG_VERSION = 1.0.0
CLOUD_MSG_SITE = https://example.org/cloud_msg/releases
CLOUD_MSG_SOURCE = cloud_msg-$(CLOUD_MSG_VERSION).tar.xz
# No licence has been granted yet: _LICENSE and _LICENSE_FILES are the owner's to set.
CLOUD_MSG_LICENSE = PROPRIETARY
CLOUD_MSG_REDISTRIBUTE = NO
CLOUD_MSG_INSTALL_STAGING = YES
CLOUD_MSG_DEPENDENCIES = host-pkgconf cjson libcurl
CLOUD_MSG_CONF_OPTS = \
	-DCLOUD_HOST_TOOLS=OFF \
	-DCLOUD_TESTS=OFF \
	-DCLOUD_LIBRARY=ON \
	-DCLOUD_CURL=dlopen \
	-DCLOUD_CA_FILE=/etc/ssl/certs/ca-certificates.crt

ifeq ($(BR2_PACKAGE_CLOUD_MSG_REFERENCE),y)
CLOUD_MSG_DEPENDENCIES += mbedtls sqlite
CLOUD_MSG_CONF_OPTS += -DCLOUD_REFERENCE=ON
else
CLOUD_MSG_CONF_OPTS += -DCLOUD_REFERENCE=OFF
endif

$(eval $(cmake-package))
