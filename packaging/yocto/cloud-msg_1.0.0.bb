SUMMARY = "Cloud command of a Wi-Fi range extender"
DESCRIPTION = "One-shot command that does one cloud operation through the device's local broker \
and prints one integer, and the client library behind it, libkxcc."
HOMEPAGE = "https://example.org/cloud_msg"
SECTION = "net"
# No licence has been granted yet: LICENSE and LIC_FILES_CHKSUM are the owner's to set.
LICENSE = "CLOSED"

DEPENDS = "cjson curl"

# Unpacked under the recipe's own name, so that S is what every release of the build system takes for granted.
SRC_URI = "https://example.org/cloud_msg/releases/cloud_msg-${PV}.tar.xz;subdir=${BP};striplevel=1 \
           file://run-ptest \
           "
SRC_URI[sha256sum] = "0000000000000000000000000000000000000000000000000000000000000000"

inherit cmake pkgconfig ptest

# The reference platform stands in for recipes of the device that bring libwrapper.so and librsa.so. Without it, add
# those to DEPENDS.
PACKAGECONFIG ??= ""
PACKAGECONFIG[reference] = "-DCLOUD_REFERENCE=ON,-DCLOUD_REFERENCE=OFF,mbedtls sqlite3"

EXTRA_OECMAKE = " \
    -DCLOUD_HOST_TOOLS=OFF \
    -DCLOUD_TESTS=OFF \
    -DCLOUD_LIBRARY=ON \
    -DCLOUD_CURL=dlopen \
    -DCLOUD_CA_FILE=${sysconfdir}/ssl/certs/ca-certificates.crt \
    -DCLOUD_PLATFORM_DIR=${@os.path.relpath(d.getVar('libdir'), d.getVar('prefix'))}/cloud-msg \
"

PACKAGES =+ "libkxcc"
FILES:libkxcc = "${libdir}/libkxcc.so.*"
# The reference platform's libraries are the programs' own.
FILES:${PN} += "${libdir}/cloud-msg"
PRIVATE_LIBS:${PN} = "libwrapper.so librsa.so"
# Opened when it is needed, so no tool sees it. It has to have TLS.
RDEPENDS:${PN} += "libcurl ca-certificates"

BBCLASSEXTEND = "native nativesdk"
