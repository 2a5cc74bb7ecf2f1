# Fails when a C++ source of the project differs from what clang-format makes of it.
# Variables: SOURCE_DIR, CLANG_FORMAT.
file(GLOB_RECURSE sources RELATIVE ${SOURCE_DIR}
     ${SOURCE_DIR}/tarnio/*.h ${SOURCE_DIR}/tarnio/*.cc ${SOURCE_DIR}/tools/*.h
     ${SOURCE_DIR}/tools/*.cc ${SOURCE_DIR}/tests/*.cc ${SOURCE_DIR}/bench/*.cc ${SOURCE_DIR}/bench/*.h
     ${SOURCE_DIR}/python/*.h ${SOURCE_DIR}/python/*.cc)
execute_process(COMMAND ${CLANG_FORMAT} --dry-run -Werror ${sources}
                WORKING_DIRECTORY ${SOURCE_DIR} RESULT_VARIABLE status)
if(NOT status EQUAL 0)
  message(FATAL_ERROR "Sources are not formatted: run `make format`.")
endif()
