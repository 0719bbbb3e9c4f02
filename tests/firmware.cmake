add_library(firmware_support STATIC firmware_support.cpp)
target_link_libraries(firmware_support PUBLIC emulator GTest::gmock PRIVATE cloud_warnings)
foreach(name check download nginx unit update)
  cloud_test(
    firmware_${name}_test NAMESPACE
    SOURCES firmware_${name}_test.cpp
    LIBS firmware_support $<$<STREQUAL:${name},unit>:cloud_program> platform_interface wrapper)
  add_dependencies(firmware_${name}_test cloud_msg cloud_store cloud_image)
endforeach()
