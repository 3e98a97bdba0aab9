// Golden files: text a test produces, compared with a checked-in file under tests/golden/,
// rewritten only when the test runs with BRIGHTMIX_UPDATE_GOLDEN=1.
#pragma once

#include <cstdlib>
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <string>

namespace brightmix::testing {

inline bool isUpdatingGoldenFiles() {
    const char* update = std::getenv("BRIGHTMIX_UPDATE_GOLDEN");
    return update != nullptr && std::string(update) == "1";
}

// `relativePath` is below tests/golden/.
inline void expectMatchesGolden(const std::string& relativePath, const std::string& actual) {
    const std::string path = std::string(BRIGHTMIX_SOURCE_DIR) + "/tests/golden/" + relativePath;
    if (isUpdatingGoldenFiles()) {
        std::ofstream(path, std::ios::binary) << actual;
        return;
    }
    std::ifstream file(path, std::ios::binary);
    ASSERT_TRUE(file) << "missing " << path << "; run with BRIGHTMIX_UPDATE_GOLDEN=1";
    const std::string expected{std::istreambuf_iterator<char>(file), {}};
    EXPECT_EQ(actual, expected) << "differs from " << path
                                << " (BRIGHTMIX_UPDATE_GOLDEN=1 rewrites it)";
}

} // namespace brightmix::testing
