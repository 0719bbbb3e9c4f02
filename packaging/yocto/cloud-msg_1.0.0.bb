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

# Without it, recipes of the device provide libwrapper.so and librsa.so: add them to DEPENDS.
PACKAGECONFIG ??= ""
PACKAGECONFIG[reference] = "-DCLOUD_REFERENCE=ON,-DCLOUD_REFERENCE=OFF,mbedtls sqlite3"

do_install:append() {
    if ${@bb.utils.contains('PACKAGECONFIG', 'reference', 'true', 'false', d)}; then
        install -d ${D}${libdir}
        install -m 0755 ${B}/libwrapper.so ${B}/librsa.so ${D}${libdir}
    fi
}

PACKAGES =+ "libkxcc"
FILES:libkxcc = "${libdir}/libkxcc.so.*"
FILES:${PN} += "${libdir}/libwrapper.so ${libdir}/librsa.so"
# Without a version in their names: the names are the platform's.
INSANE_SKIP:${PN} += "dev-so"
# Opened when it is needed, so no tool sees it.
RDEPENDS:${PN} = "libcurl ca-certificates"

BBCLASSEXTEND = "native nativesdk"
