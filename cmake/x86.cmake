# 32-bit x86 on a 64-bit Debian. The multilib package that brings the kernel's asm headers conflicts with the
# ARM cross compiler, so the 64-bit ones are named here.
set(CMAKE_CXX_COMPILER g++-12)
set(CMAKE_C_COMPILER gcc-12)
set(CMAKE_C_FLAGS_INIT "-m32 -idirafter /usr/include/x86_64-linux-gnu")
set(CMAKE_CXX_FLAGS_INIT "-m32 -idirafter /usr/include/x86_64-linux-gnu")
set(VELMORA_DEBIAN_ARCHITECTURE i386)
set(VELMORA_DEBIAN_TRIPLET i386-linux-gnu)
