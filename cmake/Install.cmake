# What is installed beside the program: the reference platform and, on a host, the emulated device, to try the program
# and to test against. The client library (cloud-mod/) is in components of its own. debian/ and packaging/ make packages.
if(NOT CLOUD_REFERENCE)
  return()
endif()

# The platform's libraries have names that belong to a device. On a device they stand for its own, where everything looks;
# on a host they stay out of the linker's way, in a folder of their own.
if(CLOUD_HOST_TOOLS)
  set(PLATFORM_DIR_DEFAULT ${CMAKE_INSTALL_LIBDIR}/cloud-msg)
else()
  set(PLATFORM_DIR_DEFAULT ${CMAKE_INSTALL_LIBDIR})
endif()
set(CLOUD_PLATFORM_DIR ${PLATFORM_DIR_DEFAULT} CACHE STRING "Folder of the reference platform's libraries, below the prefix")
set(PLATFORM_PROGRAMS cloud_msg cloud_store cloud_rsa cloud_image)
if(NOT CLOUD_PLATFORM_DIR STREQUAL CMAKE_INSTALL_LIBDIR)
  file(RELATIVE_PATH PLATFORM_FROM_BIN ${CMAKE_INSTALL_FULL_BINDIR} ${CMAKE_INSTALL_PREFIX}/${CLOUD_PLATFORM_DIR})
  # The same path in the build folder, where the libraries lie beside the programs: CMake's own build path ends
  # in a separator, which the loader takes for the current folder.
  set_target_properties(${PLATFORM_PROGRAMS} PROPERTIES BUILD_WITH_INSTALL_RPATH ON
                                                        INSTALL_RPATH "$ORIGIN:$ORIGIN/${PLATFORM_FROM_BIN}")
endif()
install(TARGETS wrapper rsa LIBRARY DESTINATION ${CLOUD_PLATFORM_DIR})
install(TARGETS cloud_store cloud_rsa RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
if(NOT CLOUD_HOST_TOOLS)
  return()
endif()

install(TARGETS sweep_fault LIBRARY DESTINATION ${CLOUD_PLATFORM_DIR})
set_property(SOURCE emulator/people/check.cpp TARGET_DIRECTORY extender APPEND
             PROPERTY COMPILE_DEFINITIONS PLATFORM_FROM_BIN="${PLATFORM_FROM_BIN}")
target_compile_definitions(emulator_sweep PRIVATE SWEEP_INSTALLED_IN="${PLATFORM_FROM_BIN}")
install(TARGETS cloud_image cloud_probe extender RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(DIRECTORY platform/template DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/cloud-msg)
# With it come the headers for who writes a platform; a device's build has them as a component of their own.
install(FILES platform/include/wrapper.h platform/include/rsa.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/cloud-platform)
install(FILES ${CMAKE_BINARY_DIR}/platform/include/cloud-platform.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
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

# Completions: one file a program for each shell, named as the shell wants it.
foreach(program cloud_msg cloud_store cloud_rsa cloud_image extender kxcc-tap)
  install(FILES completions/${program}.bash DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions RENAME ${program})
  install(FILES completions/_${program} DESTINATION ${CMAKE_INSTALL_DATADIR}/zsh/vendor-completions)
  install(FILES completions/${program}.fish DESTINATION ${CMAKE_INSTALL_DATADIR}/fish/vendor_completions.d)
endforeach()
