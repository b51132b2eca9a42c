# 32-bit x86 with clang, whose fuzzing runtime GCC has not. The rest as in x86.cmake.
set(CMAKE_CXX_COMPILER clang++-14)
set(CMAKE_C_COMPILER clang-14)
set(CMAKE_C_FLAGS_INIT "-m32 -idirafter /usr/include/x86_64-linux-gnu")
set(CMAKE_CXX_FLAGS_INIT "-m32 -idirafter /usr/include/x86_64-linux-gnu")
