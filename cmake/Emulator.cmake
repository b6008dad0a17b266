# Runs the i386 variant's programs where the host kernel cannot.
#
# Not every x86_64 kernel runs 32-bit code (an i386 binary then gets "Exec
# format error"). A tiny program is built and started at configure time; when
# it does not run, or when QV_WM_EMULATE asks for it, every program of this
# build is started through Debian's user-mode emulator qemu-i386:
# CMAKE_CROSSCOMPILING_EMULATOR makes CTest and test discovery use it, and the
# tests that start programs themselves (wmctl, the other build's tools, the
# installed consumers) read it from QV_WM_EMULATOR. Nothing system-wide is
# registered: the emulator runs only what this build starts.
#
# Sets QV_WM_EMULATOR (empty when programs run natively) and
# QV_WM_RUN_MODE ("native" or "emulated").
option(QV_WM_EMULATE "Run the i386 variant's programs through qemu-i386 even where the kernel runs them" OFF)
if(DEFINED ENV{QV_WM_EMULATE} AND "$ENV{QV_WM_EMULATE}")
  set(QV_WM_EMULATE ON)
endif()

set(QV_WM_EMULATOR "")
set(QV_WM_RUN_MODE "native")
if(CMAKE_SIZEOF_VOID_P EQUAL 4 AND CMAKE_HOST_SYSTEM_PROCESSOR MATCHES "x86_64|amd64")
  set(probe_dir ${CMAKE_BINARY_DIR}/CMakeFiles/i386-probe)
  file(WRITE ${probe_dir}/probe.cpp "int main() { return sizeof(void*) == 4 ? 0 : 1; }\n")
  try_compile(probe_built ${probe_dir}/build SOURCES ${probe_dir}/probe.cpp
    COPY_FILE ${probe_dir}/probe OUTPUT_VARIABLE probe_log)
  if(NOT probe_built)
    message(FATAL_ERROR "Cannot build an i386 program: ${probe_log}")
  endif()
  execute_process(COMMAND ${probe_dir}/probe RESULT_VARIABLE probe_rc
    OUTPUT_QUIET ERROR_QUIET)
  if(QV_WM_EMULATE OR NOT probe_rc STREQUAL "0")
    find_program(QV_WM_QEMU_I386 qemu-i386)
    if(NOT QV_WM_QEMU_I386)
      message(FATAL_ERROR "This kernel does not run i386 programs (${probe_rc}) or emulation "
        "was asked for, and qemu-i386 was not found: install Debian's qemu-user.")
    endif()
    set(QV_WM_EMULATOR ${QV_WM_QEMU_I386})
    set(QV_WM_RUN_MODE "emulated")
    set(CMAKE_CROSSCOMPILING_EMULATOR ${QV_WM_EMULATOR})
    if(QV_WM_EMULATE)
      set(why "forced by QV_WM_EMULATE")
    else()
      set(why "the kernel refused the probe: ${probe_rc}")
    endif()
    message(STATUS "i386 programs run emulated through ${QV_WM_EMULATOR} (${why})")
  else()
    message(STATUS "i386 programs run natively")
  endif()
endif()
# Kept in the cache for scripts/test.sh, which reports how the tests ran.
set(QV_WM_RUN_MODE ${QV_WM_RUN_MODE} CACHE INTERNAL "native or emulated")
