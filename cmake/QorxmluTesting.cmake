# qorxmlu_add_test(<name> SOURCES ... [LIBS ...] [LABELS ...])
#
# One GoogleTest program per subsystem, linked against the library's objects (qorxmlu_test_base).
# Natively each test case becomes a ctest entry; cross-built, the program runs under Wine as one
# entry, since every Wine process start costs most of a second.
include(GoogleTest)

function(qorxmlu_add_test name)
  cmake_parse_arguments(ARG "" "" "SOURCES;LIBS;LABELS" ${ARGN})
  add_executable(${name} ${ARG_SOURCES})
  target_link_libraries(${name} PRIVATE qorxmlu_test_base ${ARG_LIBS})
  if(NOT ARG_LABELS)
    set(ARG_LABELS unit)
  endif()
  if(CMAKE_CROSSCOMPILING)
    add_test(NAME ${name} COMMAND ${name})
    set_tests_properties(${name} PROPERTIES LABELS "${ARG_LABELS}")
  else()
    gtest_discover_tests(${name} DISCOVERY_TIMEOUT 60 PROPERTIES LABELS "${ARG_LABELS}")
  endif()
endfunction()
