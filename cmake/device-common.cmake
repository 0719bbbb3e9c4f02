# Shared by the toolchain files of this folder, each the description of one target. script/device reads them as
# well: one set() a line, its words without quotes.
#   DEVICE_TRIPLET      GCC's name of the target; its tools' names begin so
#   DEVICE_LOADER       musl's loader, in /lib
#   DEVICE_EMULATOR     the program that runs the target's programs on this host; none where the host does
#   DEVICE_BYTE_ORDER   big or little
#   DEVICE_MACHINE      flags for all that is compiled for it
#   DEVICE_COMPACT      flags for code that had better be small than fast
#   DEVICE_COMPACT_LINK, DEVICE_LINK_FLAGS   flags for linking: where code is compact; always
get_filename_component(DEVICE_TARGET ${CMAKE_PARENT_LIST_FILE} NAME_WE)
string(REPLACE device-mips-sysroot device-sysroot DEVICE_SYSROOT ${CMAKE_CURRENT_LIST_DIR}/../build/${DEVICE_TARGET}-sysroot)
get_filename_component(DEVICE_SYSROOT ${DEVICE_SYSROOT} ABSOLUTE)
set(DEVICE_TOOLS ${DEVICE_TRIPLET}-)
string(REGEX MATCH "^[a-z0-9_]+" CMAKE_SYSTEM_PROCESSOR ${DEVICE_TRIPLET})
if(DEVICE_EMULATOR)
  set(CMAKE_CROSSCOMPILING_EMULATOR ${DEVICE_EMULATOR} -L ${DEVICE_SYSROOT})
endif()
set(DEVICE_ALL_LINK_FLAGS ${DEVICE_LINK_FLAGS})
if(DEVICE_COMPACT)
  # For a processor that lacks these instructions: OFF.
  option(DEVICE_COMPACT_CODE "Compile to the processor's compact instructions" ON)
  if(DEVICE_COMPACT_CODE)
    set(DEVICE_FLAGS ${DEVICE_COMPACT})
    list(APPEND DEVICE_ALL_LINK_FLAGS ${DEVICE_COMPACT_LINK})
  endif()
endif()
list(JOIN DEVICE_ALL_LINK_FLAGS " " DEVICE_ALL_LINK_FLAGS)

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_C_COMPILER ${DEVICE_SYSROOT}/bin/cc)
set(CMAKE_CXX_COMPILER ${DEVICE_SYSROOT}/bin/c++)
# Archives of link-time optimised objects need GCC's plugin.
set(CMAKE_AR ${DEVICE_TOOLS}gcc-ar CACHE STRING "")
set(CMAKE_RANLIB ${DEVICE_TOOLS}gcc-ranlib CACHE STRING "")
set(CMAKE_NM ${DEVICE_TOOLS}gcc-nm CACHE STRING "")
set(CMAKE_OBJCOPY ${DEVICE_TOOLS}objcopy)  # a build folder's cache may hold the host's
set(CMAKE_STRIP ${DEVICE_TOOLS}strip CACHE STRING "")
set(CMAKE_C_COMPILER_AR ${DEVICE_TOOLS}gcc-ar CACHE STRING "")
set(CMAKE_C_COMPILER_RANLIB ${DEVICE_TOOLS}gcc-ranlib CACHE STRING "")
set(CMAKE_CXX_COMPILER_AR ${DEVICE_TOOLS}gcc-ar CACHE STRING "")
set(CMAKE_CXX_COMPILER_RANLIB ${DEVICE_TOOLS}gcc-ranlib CACHE STRING "")
if(NOT EXISTS ${CMAKE_CXX_COMPILER})
  message(FATAL_ERROR "${DEVICE_SYSROOT} is not there yet: run script/device")
endif()

# There is no C++ runtime library to link CMake's trial programs with.
set(CMAKE_TRY_COMPILE_TARGET_TYPE STATIC_LIBRARY)

set(CMAKE_C_FLAGS_INIT "${DEVICE_FLAGS}")
set(CMAKE_CXX_FLAGS_INIT "${DEVICE_FLAGS}")
# The program is optimised as one unit, with a section for each function, so that the linker can put the functions of the
# list together. DEVICE_EXTRA_LINK: for those who link differently (bench/footprint).
set(DEVICE_EXTRA_LINK "" CACHE STRING "More flags for linking programs")
set(DEVICE_LAYOUT_LIST ${CMAKE_CURRENT_LIST_DIR}/device_layout.txt)
set(DEVICE_LAYOUT ${CMAKE_BINARY_DIR}/device_layout.ld)
execute_process(COMMAND ${CMAKE_CURRENT_LIST_DIR}/device_layout.sh ${DEVICE_LAYOUT_LIST}
                OUTPUT_FILE ${DEVICE_LAYOUT} COMMAND_ERROR_IS_FATAL ANY)
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${DEVICE_LAYOUT_LIST})
set(CMAKE_EXE_LINKER_FLAGS_INIT
    "${DEVICE_ALL_LINK_FLAGS} -flto-partition=one -ffunction-sections -fdata-sections \
-Wl,-T,${DEVICE_LAYOUT} ${DEVICE_EXTRA_LINK}")
set(CLOUD_LINK_DEPENDS ${DEVICE_LAYOUT})
set(CMAKE_SHARED_LINKER_FLAGS_INIT "${DEVICE_ALL_LINK_FLAGS}")

# reference/ comes first: what asks for mbedcrypto or SQLite by name is the reference platform.
# libcurl has TLS inside.
set(CMAKE_FIND_ROOT_PATH ${DEVICE_SYSROOT}/reference ${DEVICE_SYSROOT})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(ENV{PKG_CONFIG_LIBDIR} ${DEVICE_SYSROOT}/lib/pkgconfig:${DEVICE_SYSROOT}/reference/lib/pkgconfig)
set(ENV{PKG_CONFIG_PATH} "")
