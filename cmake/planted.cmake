# SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
#
# Planted faults: what shows that the checks can fail.
#
# planted_fault(NAME name FILE tarv/unit.cc REPLACE "text" WITH "text"
#               RUN program [argument...] EXPECT "regex" [ONLY plain|asan|tsan...])
#
# Makes a copy of the source with a fault in it, links it in front of the libraries into a copy of
# the program, and adds the test Planted.NAME. The test passes when the program fails and its output
# has a line that matches EXPECT (an extended regular expression): the fault was caught and named.
# The replaced text must stand in the source exactly once; when the source has moved on, the test
# fails and says so, and everything else is built and runs. One file is compiled a row; the program's
# own objects are those that it is made of. The row exists in the builds that ONLY names, or in the
# plain one: what needs no sanitizer to be found is shown once.

# The word for the build that ONLY chooses by.
function(tarv_kind_of_build result)
  set(kind plain)
  if(TARV_SANITIZE MATCHES "thread")
    set(kind tsan)
  elseif(TARV_SANITIZE MATCHES "address")
    set(kind asan)
  endif()
  set(${result} ${kind} PARENT_SCOPE)
endfunction()

# Writes the copy. A change of the source plants the fault anew. `result` is what is wrong with the
# row, or empty.
function(tarv_plant result source copy from to)
  set(text "")
  if(EXISTS ${source})
    set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${source})
    file(READ ${source} text)
  endif()
  string(FIND "${text}" "${from}" first)
  string(FIND "${text}" "${from}" last REVERSE)
  if(from STREQUAL "" OR first EQUAL -1 OR NOT first EQUAL last)
    set(${result} "the text to replace must stand exactly once in ${source}:\n${from}" PARENT_SCOPE)
    return()
  endif()
  string(REPLACE "${from}" "${to}" text "${text}")
  # Unchanged content keeps its time, so that a new configuration compiles nothing anew.
  file(GENERATE OUTPUT ${copy} CONTENT "${text}")
  set(${result} "" PARENT_SCOPE)
endfunction()

# A test that fails with a message, without anything to build.
function(tarv_failing_test name message)
  set(script ${CMAKE_CURRENT_BINARY_DIR}/${name}.cmake)
  file(GENERATE OUTPUT ${script} CONTENT "message(FATAL_ERROR [====[\n${message}]====])\n")
  add_test(NAME ${name} COMMAND ${CMAKE_COMMAND} -P ${script})
endfunction()

function(planted_fault)
  cmake_parse_arguments(PARSE_ARGV 0 ROW "" "NAME;FILE;REPLACE;WITH;EXPECT" "RUN;ONLY")
  foreach(word NAME FILE REPLACE RUN EXPECT)
    if(NOT DEFINED ROW_${word})
      message(FATAL_ERROR "planted fault ${ROW_NAME}: ${word} is missing")
    endif()
  endforeach()
  if(ROW_UNPARSED_ARGUMENTS)
    message(FATAL_ERROR "planted fault ${ROW_NAME}: not understood: ${ROW_UNPARSED_ARGUMENTS}")
  endif()
  tarv_kind_of_build(kind)
  if(NOT ROW_ONLY)
    set(ROW_ONLY plain)
  endif()
  if(NOT kind IN_LIST ROW_ONLY)
    return()
  endif()

  set(copy ${CMAKE_CURRENT_BINARY_DIR}/${ROW_NAME}/${ROW_FILE})
  tarv_plant(wrong ${PROJECT_SOURCE_DIR}/${ROW_FILE} ${copy} "${ROW_REPLACE}" "${ROW_WITH}")
  if(wrong)
    tarv_failing_test(Planted.${ROW_NAME} "${wrong}")
    return()
  endif()

  # Compiled as the library compiles it that the file belongs to.
  string(REGEX REPLACE "/.*" "" library ${ROW_FILE})
  set(faulty planted_${ROW_NAME})
  add_library(${faulty}_file OBJECT ${copy})
  # An analyser has no business with it.
  set_target_properties(${faulty}_file PROPERTIES EXPORT_COMPILE_COMMANDS OFF)
  target_link_libraries(${faulty}_file PRIVATE tarv_options)
  target_compile_options(${faulty}_file PRIVATE $<TARGET_PROPERTY:${library},COMPILE_OPTIONS>)
  # What clang's analysis of locks refuses is for another check to find here.
  target_compile_options(${faulty}_file PRIVATE $<$<CXX_COMPILER_ID:Clang>:-Wno-thread-safety>)

  list(POP_FRONT ROW_RUN program)
  add_executable(${faulty} $<TARGET_OBJECTS:${faulty}_file> $<TARGET_OBJECTS:${program}>)
  set_target_properties(${faulty} PROPERTIES LINKER_LANGUAGE CXX)
  target_link_options(${faulty} PRIVATE $<TARGET_PROPERTY:${program},LINK_OPTIONS>)
  get_target_property(libraries ${program} LINK_LIBRARIES)
  target_link_libraries(${faulty} PRIVATE ${libraries})
  add_test(NAME Planted.${ROW_NAME} COMMAND ${PROJECT_SOURCE_DIR}/tests/planted/must_fail
    ${ROW_EXPECT} $<TARGET_FILE:${faulty}> ${ROW_RUN})
  set_tests_properties(Planted.${ROW_NAME} PROPERTIES TIMEOUT 120)
endfunction()
