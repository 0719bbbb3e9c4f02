cloud_test(
  command_line_test NAMESPACE PROGRAM
  SOURCES program/command_line_test.cpp)
cloud_test(
  bind_test NAMESPACE PROGRAM
  SOURCES account/bind_test.cpp)
cloud_test(
  account_test NAMESPACE PROGRAM
  SOURCES account/cloud_accountChannel_test.cpp account/cloud_accountPasswd_test.cpp account/cloud_accountRequest_test.cpp
          account/cloud_accountResult_test.cpp account/cloud_accountState_test.cpp account/cloud_accountStatus_test.cpp
  LIBS wrapper)
cloud_test(
  util_test NAMESPACE
  SOURCES base/base64_test.cpp base/cloud_jsonRpc_test.cpp base/cloud_util_test.cpp
          device/cloud_userConfig_test.cpp link/cloud_api_wrap_test.cpp
  LIBS cloud_front cloud_mod_instance)
target_include_directories(util_test PRIVATE ${PROJECT_SOURCE_DIR}/cloud-mod)
# Completions, in the shells themselves.
add_test(NAME completions COMMAND ${CMAKE_CURRENT_LIST_DIR}/program/completions.py ${PROJECT_SOURCE_DIR} ${PROJECT_BINARY_DIR})
set_tests_properties(completions PROPERTIES LABELS library TIMEOUT 1200)
