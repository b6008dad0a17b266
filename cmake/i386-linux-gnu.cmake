# Toolchain for the i386 variant, built on an x86_64 Debian host with the
# multilib compilers:
#
#   cmake -S . -B build-i386 -DCMAKE_TOOLCHAIN_FILE=cmake/i386-linux-gnu.cmake
#
# The compilers emit 32-bit code (-m32); libraries and pkg-config modules are
# looked up in the i386 multiarch directories only, so a 64-bit library is
# never picked by mistake. Whether the host kernel runs the results natively
# or through the user-mode emulator is decided by the project (see
# cmake/Emulator.cmake), not here.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR i686)
set(CMAKE_LIBRARY_ARCHITECTURE i386-linux-gnu)
set(QV_WM_I386_TOOLCHAIN ON) # the project refuses a 32-bit build without it

set(CMAKE_C_COMPILER gcc)
set(CMAKE_CXX_COMPILER g++)
set(CMAKE_C_FLAGS_INIT "-m32")
set(CMAKE_CXX_FLAGS_INIT "-m32")
set(CMAKE_EXE_LINKER_FLAGS_INIT "-m32")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "-m32")
set(CMAKE_MODULE_LINKER_FLAGS_INIT "-m32")

# pkg-config reads only the i386 modules and the architecture-free ones.
set(ENV{PKG_CONFIG_LIBDIR} "/usr/lib/i386-linux-gnu/pkgconfig:/usr/share/pkgconfig")
