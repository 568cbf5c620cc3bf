# A room is a folder with a CMakeLists.txt of its own. Its library is mirn_<name>; includes are written from the
# top of the tree ("device/protocol.h").

function(mirn_add_rooms)
  foreach(room ${ARGN})
    if(EXISTS ${CMAKE_CURRENT_SOURCE_DIR}/${room}/CMakeLists.txt)
      add_subdirectory(${room})
    endif()
  endforeach()
endfunction()

# mirn_room(NAME SOURCES a.cc b.cc LINKS mirn_pellum ...): a static library of one room.
function(mirn_room name)
  cmake_parse_arguments(ARG "" "" "SOURCES;LINKS;PRIVATE_LINKS" ${ARGN})
  add_library(mirn_${name} STATIC ${ARG_SOURCES})
  target_include_directories(mirn_${name} PUBLIC ${PROJECT_SOURCE_DIR} ${PROJECT_BINARY_DIR}/generated)
  target_link_libraries(mirn_${name} PUBLIC ${ARG_LINKS} Threads::Threads PRIVATE ${ARG_PRIVATE_LINKS})
endfunction()

# mirn_interface_room(NAME LINKS ...): a room of headers alone.
function(mirn_interface_room name)
  cmake_parse_arguments(ARG "" "" "LINKS" ${ARGN})
  add_library(mirn_${name} INTERFACE)
  target_include_directories(mirn_${name} INTERFACE ${PROJECT_SOURCE_DIR} ${PROJECT_BINARY_DIR}/generated)
  target_link_libraries(mirn_${name} INTERFACE ${ARG_LINKS})
endfunction()

# mirn_test(NAME SOURCES ... LINKS ... [LABELS ...: unit] [TIMEOUT s: 120] [SERIAL]): one GoogleTest program; every case is a
# ctest test of its own, so a process-wide state that one case leaves behind never reaches another.
function(mirn_test name)
  cmake_parse_arguments(ARG "SERIAL;OWN_MAIN" "TIMEOUT" "SOURCES;LINKS;LABELS;ENVIRONMENT" ${ARGN})
  if(NOT ARG_TIMEOUT)
    set(ARG_TIMEOUT 120)
  endif()
  if(NOT ARG_LABELS)
    set(ARG_LABELS unit)
  endif()
  add_executable(${name} ${ARG_SOURCES})
  set_target_properties(${name} PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/tests)
  target_include_directories(${name} PRIVATE ${PROJECT_SOURCE_DIR} ${PROJECT_BINARY_DIR}/generated)
  target_link_libraries(${name} PRIVATE ${ARG_LINKS} GTest::gmock GTest::gtest)
  if(NOT ARG_OWN_MAIN)
    target_link_libraries(${name} PRIVATE GTest::gtest_main)
  endif()
  set(properties TIMEOUT ${ARG_TIMEOUT} LABELS "${ARG_LABELS}")
  if(ARG_SERIAL)
    list(APPEND properties RUN_SERIAL TRUE)
  endif()
  if(ARG_ENVIRONMENT)
    list(APPEND properties ENVIRONMENT "${ARG_ENVIRONMENT}")
  endif()
  gtest_discover_tests(${name} DISCOVERY_TIMEOUT 60 DISCOVERY_MODE PRE_TEST PROPERTIES ${properties})
endfunction()

# mirn_bench(NAME SOURCES ... LINKS ...): one Google Benchmark program; `make bench` runs them all and prints one table.
function(mirn_bench name)
  cmake_parse_arguments(ARG "" "" "SOURCES;LINKS" ${ARGN})
  add_executable(${name} ${ARG_SOURCES})
  set_target_properties(${name} PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/bench)
  target_include_directories(${name} PRIVATE ${PROJECT_SOURCE_DIR} ${PROJECT_BINARY_DIR}/generated)
  target_link_libraries(${name} PRIVATE ${ARG_LINKS} benchmark::benchmark)
endfunction()

# mirn_fuzzer(NAME SOURCES ... LINKS ...): one libFuzzer program; its seeds stand in corpus/<name>/ beside it.
function(mirn_fuzzer name)
  cmake_parse_arguments(ARG "" "" "SOURCES;LINKS" ${ARGN})
  add_executable(${name} ${ARG_SOURCES})
  set_target_properties(${name} PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/fuzz)
  target_include_directories(${name} PRIVATE ${PROJECT_SOURCE_DIR} ${PROJECT_BINARY_DIR}/generated)
  target_link_libraries(${name} PRIVATE ${ARG_LINKS})
  target_link_options(${name} PRIVATE -fsanitize=fuzzer)
endfunction()
