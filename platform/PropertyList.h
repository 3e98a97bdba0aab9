// A property-list value: null, Boolean, signed or unsigned integer, real, string, data,
// array or dictionary with string keys. It carries the values that Core Audio passes as
// CF types (strings, arrays, dictionaries), aggregate descriptions and compositions, the
// settings domain and the diagnostics report.
//
// Thread: any (a plain value; no sharing). Realtime-safe: no (it allocates).
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace brightmix {

class PropertyList {
public:
    enum class Kind {
        null,
        boolean,
        integer,
        unsignedInteger,
        real,
        string,
        data,
        array,
        dictionary
    };

    // How deeply arrays and dictionaries may nest in a value read from outside the program
    // (a settings file, the preferences, the audio system), the outermost container being
    // level 1. Brightmix's own values nest three levels at most. Copying, comparing,
    // describing and destroying a value all recurse once per level, so every reader of outside
    // data refuses or cuts deeper values rather than hand them on.
    static constexpr int kDeepestNesting = 64;

    using Data = std::vector<std::uint8_t>;
    using Array = std::vector<PropertyList>;
    using Dictionary = std::map<std::string, PropertyList, std::less<>>;

    // Null: the value of a CF property that answered with a null reference.
    PropertyList() = default;
    PropertyList(std::string text) : value_(std::move(text)) {}
    PropertyList(const char* text) : value_(std::string(text)) {}
    PropertyList(Array items) : value_(std::move(items)) {}
    PropertyList(Dictionary entries) : value_(std::move(entries)) {}

    static PropertyList boolean(bool flag);
    static PropertyList integer(std::int64_t number);
    static PropertyList unsignedInteger(std::uint64_t number);
    static PropertyList real(double number);
    static PropertyList string(std::string text);
    static PropertyList data(Data bytes);
    static PropertyList array(Array items = {});
    static PropertyList dictionary(Dictionary entries = {});

    Kind kind() const { return static_cast<Kind>(value_.index()); }
    bool isNull() const { return kind() == Kind::null; }

    // Typed access: null / none when the value is of another kind.
    std::optional<bool> asBoolean() const;
    // Signed or unsigned integers that fit in the result; Booleans are not numbers here.
    std::optional<std::int64_t> asInteger() const;
    std::optional<std::uint64_t> asUnsignedInteger() const;
    // Any number, including a Boolean as 0 or 1 (as CF lets a CFBoolean stand for a
    // number in aggregate descriptions).
    std::optional<double> asNumber() const;
    const std::string* asString() const;
    const Data* asData() const;
    const Array* asArray() const;
    Array* asArray();
    const Dictionary* asDictionary() const;
    Dictionary* asDictionary();

    // The entry under a key of a dictionary; null when absent or not a dictionary.
    const PropertyList* find(std::string_view key) const;

    // Same kind and same value, recursively (dictionaries compare as maps).
    friend bool operator==(const PropertyList& a, const PropertyList& b) {
        return a.value_ == b.value_;
    }

    // A compact, deterministic text form for diagnostics and test messages.
    std::string description() const;

private:
    using Value = std::variant<std::monostate, bool, std::int64_t, std::uint64_t, double,
                               std::string, Data, Array, Dictionary>;
    explicit PropertyList(Value value) : value_(std::move(value)) {}

    Value value_;
};

} // namespace brightmix
