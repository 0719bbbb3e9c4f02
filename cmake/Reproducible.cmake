# Two builds of one commit are the same program, wherever and whenever they are made.

# Programs find the libraries of their build folder relative to themselves.
set(CMAKE_BUILD_RPATH_USE_ORIGIN ON)

# The date and time in the log's prefixes follow SOURCE_DATE_EPOCH, where it is set.
# GCC would see to it by itself, clang 14 does not.
# Read when CMake configures; everything gets them through cloud_device_flags.
if(DEFINED ENV{SOURCE_DATE_EPOCH})
  # string(TIMESTAMP) takes that moment in the place of now. As __DATE__ and __TIME__ write it.
  string(TIMESTAMP build_date "%b %d %Y" UTC)
  string(REGEX REPLACE " 0([0-9]) " "  \\1 " build_date "${build_date}")
  string(TIMESTAMP build_time "%H:%M:%S" UTC)
  target_compile_definitions(cloud_device_flags INTERFACE CLOUD_BUILD_DATE="${build_date}"
                                                          CLOUD_BUILD_TIME="${build_time}")
endif()
