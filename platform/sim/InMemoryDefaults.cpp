#include "platform/sim/InMemoryDefaults.h"

namespace brightmix {

std::optional<PropertyList> InMemoryDefaults::get(std::string_view key) const {
    auto found = values_.find(key);
    if (found == values_.end()) return std::nullopt;
    return found->second;
}

void InMemoryDefaults::set(std::string_view key, PropertyList value) {
    ++writeCount_;
    values_.insert_or_assign(std::string(key), std::move(value));
}

void InMemoryDefaults::remove(std::string_view key) {
    ++writeCount_;
    auto found = values_.find(key);
    if (found != values_.end()) values_.erase(found);
}

void InMemoryDefaults::removeDomain() {
    ++writeCount_;
    values_.clear();
}

} // namespace brightmix
