# SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
#
# How a kernel compiles C++, and the tests that what is compiled so will do in a kernel.
set(TARV_FREESTANDING_FLAGS
  -ffreestanding -fno-exceptions -fno-rtti -fno-threadsafe-statics -fno-unwind-tables -nostdinc++)

# tarv_freestanding_tests(SOURCES...): with each compiler that is here, whatever compiler the build
# uses, because what ends up in an object differs between them. A kernel is linked to one address,
# so none of what position-independent code refers to is there.
function(tarv_freestanding_tests)
  set(check ${PROJECT_SOURCE_DIR}/tools/check-freestanding)
  foreach(compiler g++ clang++)
    find_program(TARV_CHECK_${compiler} ${compiler})
    if(TARV_CHECK_${compiler})
      set(command ${TARV_CHECK_${compiler}} -std=gnu++20 -O2 -fno-pic -I${PROJECT_SOURCE_DIR}
        ${TARV_FREESTANDING_FLAGS})
      add_test(NAME freestanding.${compiler} COMMAND ${check} ${command} -- ${ARGN})
      add_test(NAME freestanding.${compiler}.self_test COMMAND ${check} --self-test ${command})
    endif()
  endforeach()
endfunction()
