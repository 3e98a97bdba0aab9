#include "Brightmix/PresetStore.h"

#include <utility>

namespace brightmix {

namespace {

// The string entries of a dictionary; other entries and other kinds are dropped.
PresetStore::ChildMap stringEntries(const PropertyList& value) {
    PresetStore::ChildMap result;
    if (const PropertyList::Dictionary* entries = value.asDictionary()) {
        for (const auto& [key, entry] : *entries) {
            if (const std::string* text = entry.asString()) result.emplace(key, *text);
        }
    }
    return result;
}

PropertyList childMapPropertyList(const PresetStore::ChildMap& map) {
    PropertyList::Dictionary entries;
    for (const auto& [child, value] : map)
        entries.emplace(child, PropertyList(value));
    return PropertyList(std::move(entries));
}

} // namespace

std::optional<std::string> PresetStore::value(std::string_view output,
                                              std::string_view child) const {
    if (const auto children = scoped.find(output); children != scoped.end()) {
        if (const auto found = children->second.find(child); found != children->second.end()) {
            return found->second;
        }
    }
    if (const auto found = shared.find(child); found != shared.end()) return found->second;
    return std::nullopt;
}

void PresetStore::set(std::string value, const std::string& output, const std::string& child) {
    scoped[output][child] = std::move(value);
}

std::set<std::string, std::less<>> PresetStore::allChildUIDs() const {
    std::set<std::string, std::less<>> uids;
    for (const auto& [child, value] : shared)
        uids.insert(child);
    for (const auto& [output, children] : scoped) {
        for (const auto& [child, value] : children)
            uids.insert(child);
    }
    return uids;
}

void PresetStore::remap(const UIDMapping& mapping) {
    if (mapping.empty()) return;
    remapKeys(scoped, mapping);
    for (auto& [output, children] : scoped)
        remapKeys(children, mapping);
    remapKeys(shared, mapping);
}

PropertyList PresetStore::scopedPropertyList() const {
    PropertyList::Dictionary outputs;
    for (const auto& [output, children] : scoped) {
        outputs.emplace(output, childMapPropertyList(children));
    }
    return PropertyList(std::move(outputs));
}

PropertyList PresetStore::sharedPropertyList() const {
    return childMapPropertyList(shared);
}

PresetStore PresetStore::load(const std::optional<PropertyList>& scopedValue,
                              const std::optional<PropertyList>& sharedValue) {
    PresetStore store;
    if (scopedValue) {
        if (const PropertyList::Dictionary* outputs = scopedValue->asDictionary()) {
            for (const auto& [output, children] : *outputs) {
                if (children.asDictionary() == nullptr) continue;
                store.scoped.emplace(output, stringEntries(children));
            }
        }
    }
    if (sharedValue) store.shared = stringEntries(*sharedValue);
    return store;
}

} // namespace brightmix
