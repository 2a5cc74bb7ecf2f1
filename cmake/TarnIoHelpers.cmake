# tarnio_add_test(NAME source...): a unit-test binary over the library's objects, so that the
# internal/ code of every subsystem is reachable; its tests are registered with ctest.
function(tarnio_add_test name)
  if(NOT TARNIO_BUILD_TESTS)
    return()
  endif()
  add_executable(${name} ${ARGN})
  target_link_libraries(${name} PRIVATE tarnio_objects tarnio_warnings GTest::gtest_main)
  gtest_discover_tests(${name} TEST_PREFIX "${name}." WORKING_DIRECTORY ${PROJECT_SOURCE_DIR}
                       DISCOVERY_TIMEOUT 60)
endfunction()
