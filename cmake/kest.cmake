# kest_add_library(NAME SOURCES ... DEPS ...): a platform library under libs/NAME, built as the
# shared library libkest_NAME and exported as the target kest::NAME with its src/ directory as
# the include root. Shared, so that a host and the service modules it loads share one copy of
# every process-wide object (the logger, factories, the I/O thread pool). Static in a fuzz build,
# where the fuzzer's coverage callbacks must reach every instrumented object.
function(kest_add_library name)
  cmake_parse_arguments(ARG "" "" "SOURCES;DEPS;PRIVATE_DEPS" ${ARGN})
  if(KEST_FUZZ)
    add_library(kest_${name} STATIC ${ARG_SOURCES})
  else()
    add_library(kest_${name} SHARED ${ARG_SOURCES})
  endif()
  add_library(kest::${name} ALIAS kest_${name})
  set_target_properties(kest_${name} PROPERTIES EXPORT_NAME ${name})
  # Calls inside one library need not go through the PLT.
  target_compile_options(kest_${name} PRIVATE -fno-semantic-interposition)
  target_link_options(kest_${name} PRIVATE -Wl,--no-undefined)
  target_include_directories(kest_${name} PUBLIC
    $<BUILD_INTERFACE:${CMAKE_CURRENT_SOURCE_DIR}/src>
    $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
  target_link_libraries(kest_${name} PUBLIC ${ARG_DEPS} PRIVATE ${ARG_PRIVATE_DEPS})
  install(TARGETS kest_${name} EXPORT KestTargets
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
    ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
    INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
  install(DIRECTORY src/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} FILES_MATCHING PATTERN "*.h")
endfunction()

# kest_add_test(NAME SOURCES ... DEPS ... [LABELS ...] [PROPERTIES NAME VALUE ...]): a GoogleTest
# executable registered with CTest test by test; PROPERTIES are set on every one of its tests.
function(kest_add_test name)
  if(NOT KEST_BUILD_TESTS)
    return()
  endif()
  cmake_parse_arguments(ARG "" "" "SOURCES;DEPS;LABELS;PROPERTIES" ${ARGN})
  add_executable(${name} ${ARG_SOURCES})
  target_link_libraries(${name} PRIVATE ${ARG_DEPS} GTest::gmock GTest::gtest_main)
  gtest_discover_tests(${name} DISCOVERY_TIMEOUT 60
    PROPERTIES LABELS "${ARG_LABELS}" ${ARG_PROPERTIES})
endfunction()

# kest_link_allocator(DIR LIBS ...): links LIBS into every executable defined in DIR and below,
# ahead of the C library, so that their allocator serves the whole program.
function(kest_link_allocator dir)
  get_property(targets DIRECTORY ${dir} PROPERTY BUILDSYSTEM_TARGETS)
  foreach(target ${targets})
    get_target_property(type ${target} TYPE)
    if(type STREQUAL "EXECUTABLE")
      target_link_libraries(${target} PRIVATE ${ARGN})
    endif()
  endforeach()
  get_property(subdirs DIRECTORY ${dir} PROPERTY SUBDIRECTORIES)
  foreach(subdir ${subdirs})
    kest_link_allocator(${subdir} ${ARGN})
  endforeach()
endfunction()
