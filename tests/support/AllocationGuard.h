// Counts heap allocations (operator new and malloc) made on any thread while a guard is
// alive, to prove that real-time code allocates nothing.
//
// Counting replaces the global allocation functions, which the sanitizers also replace, so
// in sanitizer builds the guard is unavailable and tests that need it skip themselves.
#pragma once

#include <cstddef>

namespace brightmix::testing {

class AllocationGuard {
public:
    AllocationGuard();
    ~AllocationGuard();
    AllocationGuard(const AllocationGuard&) = delete;
    AllocationGuard& operator=(const AllocationGuard&) = delete;

    // Allocations since this guard was made.
    std::size_t allocations() const;

    // False in sanitizer builds, where allocations cannot be counted.
    static bool isAvailable();

private:
    std::size_t start_;
};

} // namespace brightmix::testing

// In a test: skip when allocations cannot be counted.
#define BRIGHTMIX_REQUIRE_ALLOCATION_GUARD()                                                       \
    do {                                                                                           \
        if (!::brightmix::testing::AllocationGuard::isAvailable())                                 \
            GTEST_SKIP() << "allocation counting is unavailable in sanitizer builds";              \
    } while (false)
