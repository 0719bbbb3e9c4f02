# The client library's functions against a broker that plays raw bytes. It shares nothing with the
# emulator but the private /tmp, so that the two brokers cannot share a mistake.
cloud_test(
  cloud_mod_test
  NAMESPACE
  SOURCES
  cloud-mod/cloud_api_test.cpp
  cloud-mod/cloud_callback_test.cpp
  cloud-mod/cloud_interface_test.cpp
  cloud-mod/cloud_ipc_test.cpp
  cloud-mod/cloud_mod_support.cpp
  cloud-mod/cloud_register_test.cpp
  cloud-mod/cloud_signal_test.cpp
  LIBS
  cloud_mod
  cloud_mod_instance
  PkgConfig::CJSON)
target_include_directories(cloud_mod_test PRIVATE ${PROJECT_SOURCE_DIR}/cloud-mod)
target_link_options(cloud_mod_test PRIVATE -Wl,--wrap=malloc,--wrap=calloc,--wrap=free,--wrap=lstat)

# Seconds here, so that it can fail; a minute under the thread sanitizer: script/test --storm.
add_executable(cloud_mod_storm cloud-mod/storm.cpp)
target_include_directories(cloud_mod_storm PRIVATE ${PROJECT_SOURCE_DIR}/cloud-mod)
target_link_libraries(cloud_mod_storm PRIVATE cloud_warnings cloud_test_flags cloud_mod cloud_mod_instance emulator_world)
add_test(NAME storm COMMAND cloud_mod_storm 2)
set_tests_properties(storm PROPERTIES LABELS library TIMEOUT 180)

if(TARGET kxcc)
  string(TOUPPER "CMAKE_C_FLAGS_${CMAKE_BUILD_TYPE}" flags)
  add_test(NAME kxcc.install COMMAND ${CMAKE_CURRENT_LIST_DIR}/cloud-mod/install.sh ${PROJECT_SOURCE_DIR}
                                     ${PROJECT_BINARY_DIR})
  set_tests_properties(
    kxcc.install
    PROPERTIES LABELS library TIMEOUT 600 ENVIRONMENT
               "CC=${CMAKE_C_COMPILER};CXX=${CMAKE_CXX_COMPILER};CFLAGS=${CMAKE_C_FLAGS} ${${flags}}")
endif()
