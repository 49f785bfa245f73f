# nox_add_test(NAME source... [LIBS lib...] [LABELS label])
# LABELS takes one label: gtest_discover_tests passes properties as a flat
# list, so a second label would be read as a property name.
# Builds one GoogleTest program and registers each of its tests with ctest.
include(GoogleTest)
find_package(GTest REQUIRED)
function(nox_add_test name)
  cmake_parse_arguments(T "" "" "LIBS;LABELS" ${ARGN})
  add_executable(${name} ${T_UNPARSED_ARGUMENTS})
  target_link_libraries(${name} PRIVATE nox_test_support ${T_LIBS} GTest::gmock GTest::gtest_main Threads::Threads)
  target_include_directories(${name} PRIVATE ${CMAKE_SOURCE_DIR}/tests ${CMAKE_SOURCE_DIR}/src/ucore)
  gtest_discover_tests(${name}
    WORKING_DIRECTORY ${CMAKE_BINARY_DIR}/bin
    PROPERTIES LABELS "${T_LABELS}"
    DISCOVERY_TIMEOUT 60)
endfunction()
