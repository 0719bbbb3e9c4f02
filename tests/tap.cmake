# The recorder of the device, and what becomes of its journals.
cloud_test(tap_test NAMESPACE SOURCES ${CMAKE_CURRENT_LIST_DIR}/tap/tap_test.cpp)
target_include_directories(tap_test PRIVATE ${CMAKE_CURRENT_LIST_DIR}/support ${CMAKE_CURRENT_LIST_DIR}/emulator)
add_dependencies(tap_test kxcc_tap)
cloud_test(replay_test NAMESPACE PROGRAM SOURCES ${CMAKE_CURRENT_LIST_DIR}/tap/replay_test.cpp)
target_include_directories(replay_test PRIVATE ${CMAKE_CURRENT_LIST_DIR}/support)
add_dependencies(replay_test kxcc_tap)
