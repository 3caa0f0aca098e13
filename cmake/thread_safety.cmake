# SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
#
# clang's thread-safety analysis says nothing when the annotations have come apart; so before it is
# relied on, it has to refuse a read without the lock and accept the same read with it.
set(TARV_THREAD_SAFETY_FLAGS -Wthread-safety)

function(tarv_try_guarded_read result before)
  set(source ${PROJECT_BINARY_DIR}/guarded_read.cc)
  file(WRITE ${source} "#include \"platform/spinlock.h\"\n"
    "spinlock_t lock;\nint guarded TA_GUARDED(lock);\n"
    "int read_it() { ${before} return guarded; }\n")
  try_compile(accepted ${PROJECT_BINARY_DIR}/guarded_read ${source}
    CMAKE_FLAGS -DINCLUDE_DIRECTORIES=${PROJECT_SOURCE_DIR}
    COMPILE_DEFINITIONS -Werror ${TARV_THREAD_SAFETY_FLAGS}
    CXX_STANDARD 20 CXX_STANDARD_REQUIRED ON)
  set(${result} ${accepted} PARENT_SCOPE)
endfunction()

set(CMAKE_TRY_COMPILE_TARGET_TYPE STATIC_LIBRARY)
tarv_try_guarded_read(locked "spin_guard hold(lock);")
tarv_try_guarded_read(unlocked "")
unset(CMAKE_TRY_COMPILE_TARGET_TYPE)
if(NOT locked OR unlocked)
  message(FATAL_ERROR "The thread-safety analysis does not tell a guarded read from another "
    "(accepted with the lock: ${locked}, without: ${unlocked})")
endif()
