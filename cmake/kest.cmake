# kest_add_library(NAME SOURCES ... DEPS ...): a platform library under libs/NAME,
# exported as the target kest::NAME with its src/ directory as the include root.
function(kest_add_library name)
  cmake_parse_arguments(ARG "" "" "SOURCES;DEPS;PRIVATE_DEPS" ${ARGN})
  add_library(kest_${name} STATIC ${ARG_SOURCES})
  add_library(kest::${name} ALIAS kest_${name})
  target_include_directories(kest_${name} PUBLIC ${CMAKE_CURRENT_SOURCE_DIR}/src)
  target_link_libraries(kest_${name} PUBLIC ${ARG_DEPS} PRIVATE ${ARG_PRIVATE_DEPS})
endfunction()

# kest_add_test(NAME SOURCES ... DEPS ... [LABELS ...]): a GoogleTest executable
# registered with CTest test by test.
function(kest_add_test name)
  if(NOT KEST_BUILD_TESTS)
    return()
  endif()
  cmake_parse_arguments(ARG "" "" "SOURCES;DEPS;LABELS" ${ARGN})
  add_executable(${name} ${ARG_SOURCES})
  target_link_libraries(${name} PRIVATE ${ARG_DEPS} GTest::gmock GTest::gtest_main)
  gtest_discover_tests(${name} DISCOVERY_TIMEOUT 60 PROPERTIES LABELS "${ARG_LABELS}")
endfunction()
