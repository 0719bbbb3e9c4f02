add_library(firmware_support STATIC support/firmware_support.cpp)
target_link_libraries(firmware_support PUBLIC emulator GTest::gmock PRIVATE cloud_warnings)
foreach(name check download nginx update)
  cloud_test(
    firmware_${name}_test NAMESPACE PROGRAM
    SOURCES firmware/firmware_${name}_test.cpp
    LIBS firmware_support platform_interface wrapper)
  add_dependencies(firmware_${name}_test cloud_image)
endforeach()
cloud_test(
  firmware_unit_test NAMESPACE
  SOURCES firmware/firmware_unit_test.cpp
  LIBS firmware_support cloud_front)
target_link_options(firmware_unit_test PRIVATE -Wl,--wrap=calloc)
add_dependencies(firmware_unit_test cloud_store cloud_image)
