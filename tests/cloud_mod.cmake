# The client library's functions against a broker that plays raw bytes, in a /tmp of their own.
# cloud_test() would bring a main of its own, so this one says what it needs itself.
add_executable(
  cloud_mod_test
  cloud_api_test.cpp
  cloud_callback_test.cpp
  cloud_interface_test.cpp
  cloud_ipc_test.cpp
  cloud_mod_support.cpp
  cloud_register_test.cpp
  cloud_signal_test.cpp)
target_link_libraries(cloud_mod_test PRIVATE cloud_warnings cloud_mod PkgConfig::CJSON GTest::gmock)
target_link_options(cloud_mod_test PRIVATE -Wl,--wrap=malloc,--wrap=calloc,--wrap=free,--wrap=access)
gtest_discover_tests(cloud_mod_test DISCOVERY_TIMEOUT 60 PROPERTIES TIMEOUT 180)
