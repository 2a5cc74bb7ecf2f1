# Compiles the consumer with the flags that pkg-config gives for the installed library and runs
# it. Variables: PREFIX (the install prefix), SOURCE, BINARY, CXX, EXTRA_FLAGS (optional).
file(GLOB_RECURSE pc_files "${PREFIX}/tarnio.pc")
list(GET pc_files 0 pc_file)
get_filename_component(pc_dir "${pc_file}" DIRECTORY)
set(ENV{PKG_CONFIG_PATH} "${pc_dir}")
execute_process(COMMAND pkg-config --cflags --libs tarnio
                OUTPUT_VARIABLE flags OUTPUT_STRIP_TRAILING_WHITESPACE
                RESULT_VARIABLE status)
if(NOT status EQUAL 0)
  message(FATAL_ERROR "pkg-config does not find tarnio under ${PREFIX}")
endif()
separate_arguments(flags UNIX_COMMAND "${flags}")
execute_process(COMMAND pkg-config --variable=libdir tarnio
                OUTPUT_VARIABLE libdir OUTPUT_STRIP_TRAILING_WHITESPACE)
separate_arguments(extra UNIX_COMMAND "${EXTRA_FLAGS}")
execute_process(COMMAND ${CXX} ${extra} ${SOURCE} -o ${BINARY} ${flags} -Wl,-rpath,${libdir}
                RESULT_VARIABLE status)
if(NOT status EQUAL 0)
  message(FATAL_ERROR "building against the pkg-config flags failed")
endif()
execute_process(COMMAND ${BINARY} RESULT_VARIABLE status)
if(NOT status EQUAL 0)
  message(FATAL_ERROR "the consumer failed: ${status}")
endif()
