set(emulator_cases broker_test.cpp cloud_test.cpp cost_test.cpp device_test.cpp document_test.cpp extender_test.cpp
    image_server_test.cpp join_test.cpp journal_test.cpp kmpd_test.cpp secrets_test.cpp sweep_test.cpp)
list(TRANSFORM emulator_cases PREPEND ${CMAKE_CURRENT_LIST_DIR}/emulator/)
cloud_test(emulator_test NAMESPACE SOURCES ${emulator_cases} LIBS emulator_web)
add_dependencies(emulator_test extender cloud_image cloud_store cloud_rsa)

# The schemas of journal and documents, and what the program reads and writes.
add_test(NAME schema_test COMMAND /usr/bin/python3 ${CMAKE_CURRENT_LIST_DIR}/emulator/schema_test.py $<TARGET_FILE:extender> ${PROJECT_SOURCE_DIR})
set_tests_properties(schema_test PROPERTIES LABELS library TIMEOUT 900)
