# This machine's own word size.
set(CMAKE_CXX_COMPILER g++-12)
set(CMAKE_C_COMPILER gcc-12)
