// Feeds arbitrary bytes to the stored-rules decoder: it must either throw its own decoding
// error or give rules that survive a round trip through the encoder unchanged. The seeds
// include lists and objects nested 50,000 deep, far past the JSON nesting bound.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string_view>

#include "Brightmix/AppOutputRule.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    std::vector<brightmix::AppOutputRule> rules;
    try {
        rules = brightmix::decodeAppOutputRules(text);
    } catch (const brightmix::AppOutputRuleDecodingError&) {
        return 0;
    }
    const auto again = brightmix::decodeAppOutputRules(brightmix::encodeAppOutputRules(rules));
    if (again != rules) {
        std::fprintf(stderr, "rules changed on a round trip\n");
        std::abort();
    }
    return 0;
}
