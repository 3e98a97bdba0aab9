// A settings domain held in memory, for tests and tools: it stores exactly what it is given
// and forgets it with the object.
//
// Thread: control (the main thread). Realtime-safe: no.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "platform/Defaults.h"
#include "platform/PropertyList.h"

namespace brightmix {

class InMemoryDefaults final : public Defaults {
public:
    InMemoryDefaults() = default;
    explicit InMemoryDefaults(PropertyList::Dictionary initial) : values_(std::move(initial)) {}

    std::optional<PropertyList> get(std::string_view key) const override;
    void set(std::string_view key, PropertyList value) override;
    void remove(std::string_view key) override;
    void removeDomain() override;

    // The whole domain, for assertions.
    const PropertyList::Dictionary& values() const { return values_; }
    // Number of set and remove calls so far (writes that did not change anything count).
    std::size_t writeCount() const { return writeCount_; }

private:
    PropertyList::Dictionary values_;
    std::size_t writeCount_ = 0;
};

} // namespace brightmix
