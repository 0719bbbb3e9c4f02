cloud_test(
  hostile_tmp_test NAMESPACE PROGRAM
  SOURCES program/hostile_tmp_test.cpp
  LIBS firmware_support cloud_front PkgConfig::SQLITE3)
add_dependencies(hostile_tmp_test cloud_image)
