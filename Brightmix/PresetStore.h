// Per-output choices for the members of a multi-output device: a speaker role or an
// equaliser preset per child, remembered separately for every output the child belongs to,
// with an older output-independent map kept as a fallback. Used twice by the app model (roles
// and equalisers); the stored strings are the presets' raw names.
//
// Thread: any (a plain value). Realtime-safe: no.
#pragma once

#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>

#include "platform/PropertyList.h"

namespace brightmix {

// Stale UID -> current UID, as the device service reports devices that came back renamed.
using UIDMapping = std::map<std::string, std::string, std::less<>>;

struct PresetStore {
    using ChildMap = std::map<std::string, std::string, std::less<>>;
    using OutputMap = std::map<std::string, ChildMap, std::less<>>;

    // The value chosen for a child while it belongs to an output.
    OutputMap scoped;
    // Output-independent values per child; only consulted, never written by a user change.
    ChildMap shared;

    // scoped[output][child], else shared[child], else none.
    std::optional<std::string> value(std::string_view output, std::string_view child) const;
    // scoped[output][child] = value.
    void set(std::string value, const std::string& output, const std::string& child);
    // Every child UID either map knows.
    std::set<std::string, std::less<>> allChildUIDs() const;
    // Renames stale UIDs (outer and inner keys of `scoped`, keys of `shared`), stale UIDs in
    // ascending order; when the current UID already has an entry, that entry wins and the
    // stale one is dropped.
    void remap(const UIDMapping& mapping);

    // The stored forms: a dictionary of dictionaries of strings, and a dictionary of strings.
    PropertyList scopedPropertyList() const;
    PropertyList sharedPropertyList() const;
    // Reads both maps back; a value that is not a dictionary gives an empty map, and inner
    // entries of the wrong type are skipped one by one.
    static PresetStore load(const std::optional<PropertyList>& scoped,
                            const std::optional<PropertyList>& shared);

    friend bool operator==(const PresetStore&, const PresetStore&) = default;
};

// The rename rule every UID-keyed map shares: for each stale UID in ascending order with an
// entry, the entry moves to the current UID unless that UID already has one.
template <typename Map> void remapKeys(Map& map, const UIDMapping& mapping) {
    for (const auto& [stale, current] : mapping) {
        const auto found = map.find(stale);
        if (found == map.end() || stale == current) continue;
        auto value = std::move(found->second);
        map.erase(found);
        map.emplace(current, std::move(value));
    }
}

} // namespace brightmix
