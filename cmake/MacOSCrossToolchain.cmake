# Cross-compiling the macOS targets on Linux: clang and ld64.lld against a macOS SDK sysroot.
# Nothing built this way runs here; the build proves that every macOS source compiles against
# the SDK's own headers and that the app links against its stubs. scripts/check-macos.sh uses
# this file; docs/MACOS.md says how the sysroot is put together.
#
#   BRIGHTMIX_MACOS_SYSROOT      the SDK root (System/Library/Frameworks, usr/include, usr/lib)
#   BRIGHTMIX_MACOS_THIRD_PARTY  a folder holding Sparkle.framework (headers and link stub)
#   BRIGHTMIX_LLVM_BIN           the folder of clang, clang++, ld64.lld and llvm-ar
set(BRIGHTMIX_MACOS_SYSROOT "$ENV{BRIGHTMIX_MACOS_SYSROOT}" CACHE PATH "macOS SDK sysroot")
set(BRIGHTMIX_MACOS_THIRD_PARTY "$ENV{BRIGHTMIX_MACOS_THIRD_PARTY}" CACHE PATH
    "Folder holding Sparkle.framework")
set(BRIGHTMIX_LLVM_BIN "/usr/lib/llvm-19/bin" CACHE PATH "clang, clang++, ld64.lld, llvm-ar")
# try_compile projects read this file again: hand them the values chosen by the caller.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES
    BRIGHTMIX_MACOS_SYSROOT BRIGHTMIX_MACOS_THIRD_PARTY BRIGHTMIX_LLVM_BIN)

set(CMAKE_SYSTEM_NAME Darwin)
set(CMAKE_SYSTEM_PROCESSOR arm64)
set(CMAKE_OSX_SYSROOT "${BRIGHTMIX_MACOS_SYSROOT}")
set(CMAKE_OSX_ARCHITECTURES arm64)
set(CMAKE_OSX_DEPLOYMENT_TARGET "26.0")

foreach(lang C CXX OBJC OBJCXX)
    set(CMAKE_${lang}_COMPILER_TARGET "arm64-apple-macos26.0")
endforeach()
# Full paths: with a Darwin system name a bare clang++ is not found for Objective-C++.
set(CMAKE_C_COMPILER "${BRIGHTMIX_LLVM_BIN}/clang")
set(CMAKE_OBJC_COMPILER "${BRIGHTMIX_LLVM_BIN}/clang")
set(CMAKE_CXX_COMPILER "${BRIGHTMIX_LLVM_BIN}/clang++")
set(CMAKE_OBJCXX_COMPILER "${BRIGHTMIX_LLVM_BIN}/clang++")
set(CMAKE_AR "${BRIGHTMIX_LLVM_BIN}/llvm-ar" CACHE FILEPATH "")
set(CMAKE_RANLIB "${BRIGHTMIX_LLVM_BIN}/llvm-ranlib" CACHE FILEPATH "")
# The cross build never installs, so the install-name tool (which LLVM 19 lacks) is not run.
set(CMAKE_INSTALL_NAME_TOOL /bin/true CACHE FILEPATH "")
set(CMAKE_OTOOL "${BRIGHTMIX_LLVM_BIN}/llvm-otool" CACHE FILEPATH "")
set(CMAKE_LIPO "${BRIGHTMIX_LLVM_BIN}/llvm-lipo" CACHE FILEPATH "")
# Apple's ranlib options are not llvm-ranlib's.
foreach(lang C CXX OBJC OBJCXX)
    set(CMAKE_${lang}_ARCHIVE_FINISH "<CMAKE_RANLIB> <TARGET>")
endforeach()

# Debian's clang picks libstdc++ even for Darwin; the SDK's C++ library is libc++. Sparkle's
# folder is a system framework folder, so its headers raise no warnings of ours.
set(CMAKE_CXX_FLAGS_INIT "-stdlib=libc++ -iframework ${BRIGHTMIX_MACOS_THIRD_PARTY}")
set(CMAKE_OBJCXX_FLAGS_INIT "-stdlib=libc++ -iframework ${BRIGHTMIX_MACOS_THIRD_PARTY}")
set(CMAKE_C_FLAGS_INIT "-iframework ${BRIGHTMIX_MACOS_THIRD_PARTY}")
set(CMAKE_OBJC_FLAGS_INIT "-iframework ${BRIGHTMIX_MACOS_THIRD_PARTY}")
foreach(kind EXE SHARED MODULE)
    set(CMAKE_${kind}_LINKER_FLAGS_INIT "-fuse-ld=lld -stdlib=libc++")
endforeach()
set(CMAKE_FRAMEWORK_PATH "${BRIGHTMIX_MACOS_THIRD_PARTY}")

# Programs from the host; libraries, headers and packages from the sysroot only.
set(CMAKE_FIND_ROOT_PATH "${BRIGHTMIX_MACOS_SYSROOT}" "${BRIGHTMIX_MACOS_THIRD_PARTY}")
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
