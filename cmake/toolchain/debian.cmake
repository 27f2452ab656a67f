# Another processor's Linux, with the cross compiler that Debian has for it; what was built runs in QEMU's emulation
# of that processor. Whoever includes this has set CMAKE_SYSTEM_PROCESSOR, as QEMU calls it, `triplet` and
# `debian_architecture`.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_CXX_COMPILER ${triplet}-g++)
# GCC for ARM notes at every such call that it passes some arguments otherwise than before version 7.
set(CMAKE_CXX_FLAGS_INIT -Wno-psabi)
# -L names the folder of the foreign C and C++ libraries.
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-${CMAKE_SYSTEM_PROCESSOR} -L /usr/${triplet})
