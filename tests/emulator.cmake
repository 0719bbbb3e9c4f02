cloud_test(emulator_test NAMESPACE SOURCES ${CMAKE_CURRENT_LIST_DIR}/emulator_test.cpp)
add_dependencies(emulator_test extender)
