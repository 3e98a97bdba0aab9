# Warning sets as linkable targets: every project target links one of them privately.
add_library(brightmix_warnings INTERFACE)
target_compile_options(brightmix_warnings INTERFACE
    -Wall -Wextra -Wpedantic -Wshadow -Wcast-align
    $<$<COMPILE_LANGUAGE:CXX>:-Wnon-virtual-dtor -Woverloaded-virtual>
    # g++ 12 at -O2 reports std::variant members and map iterators as "maybe uninitialized"
    # when they are not; the sanitizer builds check the real thing.
    $<$<CXX_COMPILER_ID:GNU>:-Wno-maybe-uninitialized>)
if(BRIGHTMIX_WERROR)
    target_compile_options(brightmix_warnings INTERFACE -Werror)
endif()

# The real-time core is held to more: implicit conversions and silent promotions to double
# change what the render computes, so they must be spelled out.
add_library(brightmix_realtime_warnings INTERFACE)
target_link_libraries(brightmix_realtime_warnings INTERFACE brightmix_warnings)
target_compile_options(brightmix_realtime_warnings INTERFACE
    -Wconversion -Wdouble-promotion -Wcast-qual -Wformat=2 -Wundef)
