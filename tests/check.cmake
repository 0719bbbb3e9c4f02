# The conformance kit: against the parts of this repository, which pass all of it, and against wrong ones.
if(CLOUD_REFERENCE AND CLOUD_HOST_TOOLS)
  find_program(PYTHON3 python3 REQUIRED PATHS /usr/bin NO_DEFAULT_PATH)
  set(parts ${CMAKE_CURRENT_LIST_DIR}/check/parts.py)
  set(image ${PROJECT_BINARY_DIR}/check_image.bin)
  add_custom_command(
    OUTPUT ${image}
    COMMAND cloud_image make --version "1.0.7 Build 20210611 Rel.51820" --size 100000 -o ${image}
    DEPENDS cloud_image
    VERBATIM)
  add_library(wrong_platform SHARED check/wrong_platform.c)
  target_compile_definitions(wrong_platform PRIVATE _GNU_SOURCE)
  target_link_libraries(wrong_platform PRIVATE platform_interface cloud_warnings ${CMAKE_DL_LIBS})

  add_custom_target(check_parts ALL DEPENDS ${image} extender cloud_probe wrapper rsa wrong_platform)
  file(STRINGS ${CMAKE_CURRENT_LIST_DIR}/check/faults rows REGEX "^[a-z]")
  foreach(row ${rows})
    separate_arguments(row)
    list(JOIN row . name)
    add_test(NAME check.finds.${name} COMMAND ${CMAKE_CURRENT_LIST_DIR}/check/finds.sh ${PROJECT_BINARY_DIR} ${PYTHON3} ${row})
    set_tests_properties(check.finds.${name} PROPERTIES LABELS library TIMEOUT 300)
  endforeach()
  foreach(script check/kit emulator/explain)
    add_test(NAME ${script} COMMAND ${CMAKE_CURRENT_LIST_DIR}/${script}.sh ${PROJECT_SOURCE_DIR} ${PROJECT_BINARY_DIR})
    set_tests_properties(${script} PROPERTIES LABELS library TIMEOUT 300)
  endforeach()

  # check(<name> <argument of "extender check">...)
  function(check name)
    add_test(NAME check.${name} COMMAND extender check ${ARGN})
    set_tests_properties(check.${name} PROPERTIES LABELS library TIMEOUT 900)
  endfunction()
  # What any platform has to pass (ctest -L '^platform$'): by default the one that this tree builds.
  set(CLOUD_CHECK_WRAPPER $<TARGET_FILE:wrapper> CACHE STRING "libwrapper.so that the tests check")
  set(CLOUD_CHECK_RSA $<TARGET_FILE:rsa> CACHE STRING "librsa.so that the tests check")
  set(CLOUD_CHECK_IMAGE ${image} CACHE STRING "Firmware image that this platform takes")
  check(platform platform --library ${CLOUD_CHECK_WRAPPER} --rsa ${CLOUD_CHECK_RSA} --image ${CLOUD_CHECK_IMAGE} --install)
  set_tests_properties(check.platform PROPERTIES LABELS "library;platform")
  check(broker broker)
  check(kmpd kmpd)
  check(broker.example broker -- ${PYTHON3} ${PROJECT_SOURCE_DIR}/examples/broker.py)
  check(kmpd.example kmpd -- ${PYTHON3} ${parts} kmpd)
  check(service.example service -- ${PYTHON3} ${parts} service)
  add_test(NAME check.template COMMAND ${CMAKE_CURRENT_LIST_DIR}/platform/template.sh ${PROJECT_SOURCE_DIR}
                                       ${PROJECT_BINARY_DIR})
  set_tests_properties(check.template PROPERTIES LABELS library TIMEOUT 900 ENVIRONMENT "CC=${CMAKE_C_COMPILER}")
endif()
