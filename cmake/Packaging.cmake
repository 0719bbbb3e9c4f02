# Debian packages for a development host: `cpack -G DEB` in the build folder makes
#   cloud-msg    the program, the emulated device and the reference platform, to try it and to test against
#   libkxcc1, libkxcc-dev   the client library
# A device is not packaged here: packaging/ has what OpenWrt, Buildroot and Yocto want.
if(NOT CLOUD_HOST_TOOLS AND CLOUD_REFERENCE)
  # An image: the libraries where its programs look, and the tools that a factory needs.
  install(TARGETS wrapper rsa LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
  install(TARGETS cloud_store cloud_rsa RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
endif()
if(NOT CLOUD_HOST_TOOLS OR NOT CLOUD_REFERENCE)
  return()
endif()

# The platform's libraries have names that belong to a device: on a host they stay out of the
# linker's way, in a folder of their own.
set(PLATFORM_DIR ${CMAKE_INSTALL_LIBDIR}/cloud-msg)
file(RELATIVE_PATH PLATFORM_FROM_BIN ${CMAKE_INSTALL_FULL_BINDIR} ${CMAKE_INSTALL_PREFIX}/${PLATFORM_DIR})
# The same path in the build folder, where the libraries lie beside the programs: CMake's own build path ends
# in a separator, which the loader takes for the current folder.
set_target_properties(
  cloud_msg cloud_store cloud_rsa cloud_image
  PROPERTIES BUILD_WITH_INSTALL_RPATH ON INSTALL_RPATH "$ORIGIN:$ORIGIN/${PLATFORM_FROM_BIN}")
install(TARGETS wrapper rsa sweep_fault LIBRARY DESTINATION ${PLATFORM_DIR})
set_property(SOURCE emulator/people/check.cpp TARGET_DIRECTORY extender APPEND
             PROPERTY COMPILE_DEFINITIONS PLATFORM_FROM_BIN="${PLATFORM_FROM_BIN}")
install(TARGETS cloud_store cloud_rsa cloud_image cloud_probe extender RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(DIRECTORY platform/template DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/cloud-msg)
# With it come the headers for who writes a platform; a device's build has them as a component of their own.
install(FILES platform/include/wrapper.h platform/include/rsa.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/cloud-platform)
install(FILES ${CMAKE_BINARY_DIR}/platform/include/cloud-platform.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
target_compile_definitions(emulator_sweep PRIVATE SWEEP_INSTALLED_IN="${PLATFORM_FROM_BIN}")

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME cloud-msg)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT "cloud_msg maintainers <cloud_msg@example.org>")
set(CPACK_PACKAGE_HOMEPAGE_URL "https://example.org/cloud_msg")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_GROUPING IGNORE)
set(CPACK_COMPONENTS_ALL cloud-msg)
if(TARGET kxcc)
  list(APPEND CPACK_COMPONENTS_ALL libkxcc libkxcc-dev)
endif()

set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_BINARY_DIR})
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
# Compresses what Debian wants compressed.
set(CPACK_PRE_BUILD_SCRIPTS ${PROJECT_SOURCE_DIR}/cmake/PackagingCompress.cmake)

set(CPACK_DEBIAN_CLOUD-MSG_PACKAGE_NAME cloud-msg)
set(CPACK_DEBIAN_CLOUD-MSG_PACKAGE_SECTION devel)
# Opened when it is needed, so no tool sees it.
set(CPACK_DEBIAN_CLOUD-MSG_PACKAGE_DEPENDS libcurl4)
set(CPACK_DEBIAN_CLOUD-MSG_PACKAGE_RECOMMENDS strace)
set(CPACK_COMPONENT_CLOUD-MSG_DESCRIPTION "The command does one cloud operation for the device and prints its result.
With it come a device to run it on (own /tmp, console, scripts, broker and
cloud) and reference versions of its configuration store and RSA.")

set(CPACK_DEBIAN_LIBKXCC_PACKAGE_NAME libkxcc1)
set(CPACK_DEBIAN_LIBKXCC_PACKAGE_SECTION libs)
set(CPACK_COMPONENT_LIBKXCC_DESCRIPTION "Client library of the device's cloud broker: submits requests to the cloud
through the local broker and polls or is called back for the answers.")
set(CPACK_DEBIAN_LIBKXCC_PACKAGE_CONTROL_EXTRA ${PROJECT_SOURCE_DIR}/packaging/debian/libkxcc1/shlibs
                                               ${PROJECT_SOURCE_DIR}/packaging/debian/libkxcc1/triggers)

set(CPACK_DEBIAN_LIBKXCC-DEV_PACKAGE_NAME libkxcc-dev)
set(CPACK_DEBIAN_LIBKXCC-DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_LIBKXCC-DEV_PACKAGE_DEPENDS "libkxcc1 (= ${PROJECT_VERSION}), libcjson-dev")
set(CPACK_DEBIAN_LIBKXCC-DEV_PACKAGE_SHLIBDEPS OFF)
set(CPACK_COMPONENT_LIBKXCC-DEV_DESCRIPTION "Development files of the client library of the device's cloud broker:
header, static library, pkg-config and CMake files, manual page.")

foreach(section 1 5)
  file(GLOB MANUAL_PAGES ${PROJECT_SOURCE_DIR}/man/*.${section})
  install(FILES ${MANUAL_PAGES} DESTINATION ${CMAKE_INSTALL_MANDIR}/man${section})
endforeach()
install(DIRECTORY ${PROJECT_SOURCE_DIR}/emulator/schema DESTINATION ${CMAKE_INSTALL_DATADIR}/cloud-msg)

set(DOC_DIR ${CMAKE_INSTALL_DATADIR}/doc)
file(GLOB GUIDES ${PROJECT_SOURCE_DIR}/docs/*.md)
install(FILES ${PROJECT_SOURCE_DIR}/README.md DESTINATION ${DOC_DIR}/cloud-msg)
install(FILES ${GUIDES} DESTINATION ${DOC_DIR}/cloud-msg/docs)
install(DIRECTORY ${PROJECT_SOURCE_DIR}/examples DESTINATION ${DOC_DIR}/libkxcc-dev COMPONENT libkxcc-dev)
install(FILES ${PROJECT_SOURCE_DIR}/docs/client-library.md ${PROJECT_SOURCE_DIR}/docs/protocol.md
        DESTINATION ${DOC_DIR}/libkxcc-dev COMPONENT libkxcc-dev)

# What Debian expects of every package: its licence note and changelog.
foreach(package cloud-msg:cloud-msg libkxcc:libkxcc1 libkxcc-dev:libkxcc-dev)
  string(REGEX MATCH "^(.*):(.*)$" unused ${package})
  install(FILES ${PROJECT_SOURCE_DIR}/packaging/debian/copyright ${PROJECT_SOURCE_DIR}/packaging/debian/changelog
          DESTINATION ${DOC_DIR}/${CMAKE_MATCH_2} COMPONENT ${CMAKE_MATCH_1} EXCLUDE_FROM_ALL)
endforeach()
include(CPack)
