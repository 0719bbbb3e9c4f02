# The client library's functions against a broker that plays raw bytes. It shares nothing with the
# emulator but the private /tmp, so that the two brokers cannot share a mistake.
cloud_test(
  cloud_mod_test
  NAMESPACE
  SOURCES
  cloud_api_test.cpp
  cloud_callback_test.cpp
  cloud_interface_test.cpp
  cloud_ipc_test.cpp
  cloud_mod_support.cpp
  cloud_register_test.cpp
  cloud_signal_test.cpp
  LIBS
  cloud_mod
  PkgConfig::CJSON)
target_link_options(cloud_mod_test PRIVATE -Wl,--wrap=malloc,--wrap=calloc,--wrap=free,--wrap=access)
