# The recorder of the device, and what becomes of its journals.
cloud_test(tap_test NAMESPACE SOURCES ${CMAKE_CURRENT_LIST_DIR}/tap/tap_test.cpp)
target_include_directories(tap_test PRIVATE ${CMAKE_CURRENT_LIST_DIR}/support ${CMAKE_CURRENT_LIST_DIR}/emulator)
add_dependencies(tap_test kxcc_tap)
