SUMMARY = "Cloud command of a Wi-Fi range extender"
DESCRIPTION = "One-shot command that does one cloud operation through the device's local broker \
and prints one integer, and the client library behind it, libkxcc."
HOMEPAGE = "https://example.org/cloud_msg"
SECTION = "net"
# No licence has been granted yet.
LICENSE = "CLOSED"

DEPENDS = "cjson curl"

SRC_URI = "https://example.org/cloud_msg/releases/cloud_msg-${PV}.tar.gz"
SRC_URI[sha256sum] = "0000000000000000000000000000000000000000000000000000000000000000"

S = "${WORKDIR}/cloud_msg-${PV}"

inherit cmake pkgconfig

EXTRA_OECMAKE = " \
    -DCLOUD_HOST_TOOLS=OFF \
    -DCLOUD_TESTS=OFF \
    -DCLOUD_LIBRARY=ON \
    -DCLOUD_CURL=dlopen \
    -DCLOUD_CA_FILE=${sysconfdir}/ssl/certs/ca-certificates.crt \
"

# The reference platform is written for mbedTLS 2.28. Without it, recipes of the device provide libwrapper.so and librsa.so: add them to DEPENDS.
PACKAGECONFIG ??= ""
PACKAGECONFIG[reference] = "-DCLOUD_REFERENCE=ON,-DCLOUD_REFERENCE=OFF,mbedtls sqlite3"

PACKAGES =+ "libkxcc"
FILES:libkxcc = "${libdir}/libkxcc.so.*"
# The platform's libraries bear no version, and are no links for development: those are of libkxcc alone.
FILES_SOLIBSDEV = "${libdir}/libkxcc.so"
FILES:${PN} += "${libdir}/libwrapper.so ${libdir}/librsa.so"
INSANE_SKIP:${PN} += "dev-so"
# Opened when it is needed, so no tool sees it. It has to have TLS.
RDEPENDS:${PN} = "libcurl ca-certificates"

BBCLASSEXTEND = "native nativesdk"
