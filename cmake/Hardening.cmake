# Hardening of every image built with this file: the plug-in, KxsJson.dll (cmake/deps/jsoncpp) and
# the programs that test them. A security product's binaries are held to these rules:
# - stack canaries in every function with an array or an address-taken local; the guard and its
#   failure handler come from the static libssp (the link with -static picks libssp.a), so the DLL
#   still deploys alone;
# - the C library's checked variants of memcpy, strcpy and the like where the size is known;
# - ASLR with a 64-bit address space and DEP, written out rather than left to the linker's
#   defaults, which have changed between binutils releases.
# scripts/check-release.sh reads the shipped DLLs' headers and symbols back.
# A static library that a host links into its own image (the SDK's) sets AVSCAN_NOT_HARDENED: the
# host's build decides that image's hardening, and the guard would make it link libssp.
# AVSCAN_HARDENING=OFF builds without the canaries and the checked functions, only to measure what
# they cost (scripts/bench.sh against such a tree); the release check fails on such a build.
option(AVSCAN_HARDENING "stack canaries and _FORTIFY_SOURCE (measurement builds only turn this off)" ON)
if(AVSCAN_HARDENING)
  set(avscan_hardened "$<AND:$<COMPILE_LANGUAGE:C,CXX>,$<NOT:$<BOOL:$<TARGET_PROPERTY:AVSCAN_NOT_HARDENED>>>>")
  add_compile_options("$<${avscan_hardened}:-fstack-protector-strong>")
  add_compile_definitions("$<${avscan_hardened}:_FORTIFY_SOURCE=2>")
  add_link_options(-fstack-protector-strong)
endif()
add_link_options(-Wl,--dynamicbase -Wl,--high-entropy-va -Wl,--nxcompat)
