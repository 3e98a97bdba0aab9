// Builds arbitrary property-list values and member maps from the input and runs the
// composition rewrite over them: it must never crash, and a rewrite it accepts must change
// only the members' "uid" entries and "master" / "clock", each through the map, and never
// list a UID twice.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <set>
#include <string>

#include "Brightmix/AudioDeviceService.h"

namespace {

using brightmix::PropertyList;

// Reads the input as a small program that builds values; running out of bytes ends
// everything with zeros, so every input is a valid program.
class Reader {
public:
    Reader(const std::uint8_t* data, std::size_t size) : data_(data), size_(size) {}
    std::uint8_t byte() { return position_ < size_ ? data_[position_++] : 0; }
    std::string text() {
        // A tiny alphabet, so that UIDs collide and maps hit often.
        static constexpr char kLetters[] = {'A', 'B', 'C', 'D', '_', 'a'};
        const std::size_t length = byte() % 4;
        std::string result;
        for (std::size_t i = 0; i < length; ++i)
            result += kLetters[byte() % sizeof kLetters];
        return result;
    }
    std::string key() {
        static const char* const kKeys[] = {"subdevices", "uid",  "master",
                                            "clock",      "name", "drift"};
        const std::uint8_t choice = byte();
        return choice < 240 ? kKeys[choice % 6] : text();
    }
    PropertyList value(int depth) {
        switch (depth > 3 ? byte() % 4 : byte() % 7) {
        case 0:
            return PropertyList();
        case 1:
            return PropertyList::integer(static_cast<std::int8_t>(byte()));
        case 2:
        case 3:
            return PropertyList(text());
        case 4:
            return PropertyList::boolean(byte() % 2 == 0);
        case 5: {
            PropertyList::Array items;
            for (std::size_t count = byte() % 4; count > 0; --count)
                items.push_back(value(depth + 1));
            return PropertyList(std::move(items));
        }
        default: {
            PropertyList::Dictionary entries;
            for (std::size_t count = byte() % 4; count > 0; --count)
                entries[key()] = value(depth + 1);
            return PropertyList(std::move(entries));
        }
        }
    }
    // Mostly a composition of the right shape, with a flaw now and then, so that both the
    // accepted and every refused path are reached without coverage of the library itself.
    PropertyList composition() {
        if (byte() % 4 == 0) return value(0);
        PropertyList::Dictionary entries;
        PropertyList::Array members;
        for (std::size_t count = byte() % 5; count > 0; --count) {
            if (byte() % 16 == 0) {
                members.push_back(value(2));
                continue;
            }
            PropertyList::Dictionary member;
            member["uid"] = byte() % 16 == 0 ? value(3) : PropertyList(text());
            if (byte() % 2 == 0) member["drift"] = PropertyList::integer(byte() % 2);
            members.emplace_back(std::move(member));
        }
        entries["subdevices"] = byte() % 16 == 0 ? value(1) : PropertyList(std::move(members));
        for (const char* name : {"master", "clock"}) {
            const std::uint8_t choice = byte() % 4;
            if (choice == 1) entries[name] = PropertyList(text());
            if (choice == 2) entries[name] = value(2);
        }
        for (std::size_t count = byte() % 3; count > 0; --count)
            entries[key()] = value(1);
        return PropertyList(std::move(entries));
    }

private:
    const std::uint8_t* data_;
    std::size_t size_;
    std::size_t position_ = 0;
};

[[noreturn]] void fail(const char* why, const PropertyList& composition) {
    std::fprintf(stderr, "%s: %s\n", why, composition.description().c_str());
    std::abort();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Reader reader(data, size);
    std::map<std::string, std::string> map;
    for (std::size_t count = reader.byte() % 4; count > 0; --count)
        map[reader.text()] = reader.text();
    const PropertyList composition = reader.composition();

    const auto rewritten = brightmix::AudioDeviceService::rewriteComposition(composition, map);
    const auto mapped = [&](const std::string& uid) {
        const auto found = map.find(uid);
        return found == map.end() ? uid : found->second;
    };

    // Whether a rewrite is due: a non-empty dictionary whose members are all dictionaries
    // with a string "uid", a map that changes one of them, and no UID twice afterwards.
    bool isDue = false;
    if (const auto* entries = composition.asDictionary(); entries != nullptr && !entries->empty()) {
        const auto* members = composition.find("subdevices");
        if (members != nullptr && members->asArray() != nullptr) {
            bool isWellFormed = true;
            bool changes = false;
            std::set<std::string> uids;
            std::size_t count = 0;
            for (const auto& member : *members->asArray()) {
                const auto* uid = member.asDictionary() != nullptr ? member.find("uid") : nullptr;
                if (uid == nullptr || uid->asString() == nullptr) {
                    isWellFormed = false;
                    break;
                }
                changes = changes || mapped(*uid->asString()) != *uid->asString();
                uids.insert(mapped(*uid->asString()));
                ++count;
            }
            isDue = isWellFormed && changes && uids.size() == count;
        }
    }
    if (rewritten.has_value() != isDue)
        fail(isDue ? "a due rewrite was refused" : "an undue rewrite was accepted", composition);
    if (!rewritten) return 0;
    const auto* before = composition.asDictionary();
    const auto* after = rewritten->asDictionary();
    if (before == nullptr || after == nullptr || before->size() != after->size())
        fail("the rewrite changed the composition's shape", composition);
    for (const auto& [key, value] : *before) {
        const auto found = after->find(key);
        if (found == after->end()) fail("the rewrite lost a key", composition);
        if (key == "subdevices") continue;
        PropertyList expected = value;
        if ((key == "master" || key == "clock") && value.asString() != nullptr)
            expected = PropertyList(mapped(*value.asString()));
        if (found->second != expected) fail("the rewrite changed another entry", composition);
    }
    const auto* oldMembers = composition.find("subdevices")->asArray();
    const auto* newMembers = rewritten->find("subdevices")->asArray();
    if (oldMembers == nullptr || newMembers == nullptr || oldMembers->size() != newMembers->size())
        fail("the rewrite changed the member list", composition);
    std::set<std::string> seen;
    bool changed = false;
    for (std::size_t i = 0; i < oldMembers->size(); ++i) {
        const std::string oldUID = *(*oldMembers)[i].find("uid")->asString();
        const auto* newUID = (*newMembers)[i].find("uid");
        if (newUID == nullptr || newUID->asString() == nullptr ||
            *newUID->asString() != mapped(oldUID))
            fail("a member UID was not mapped", composition);
        changed = changed || *newUID->asString() != oldUID;
        if (!seen.insert(*newUID->asString()).second) fail("a UID is listed twice", composition);
        PropertyList expected = (*oldMembers)[i];
        (*expected.asDictionary())["uid"] = *newUID;
        if ((*newMembers)[i] != expected) fail("a member changed beyond its UID", composition);
    }
    if (!changed) fail("a rewrite that changes nothing was accepted", composition);
    return 0;
}
