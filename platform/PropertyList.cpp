// PropertyList: construction, typed access and the text form.
#include "platform/PropertyList.h"

#include <cmath>
#include <cstdio>
#include <limits>

namespace brightmix {

// Each factory builds the alternative in place: moving a whole variant in makes GCC 12 warn
// about the storage it is about to overwrite.
PropertyList PropertyList::boolean(bool flag) {
    PropertyList value;
    value.value_.emplace<bool>(flag);
    return value;
}
PropertyList PropertyList::integer(std::int64_t number) {
    PropertyList value;
    value.value_.emplace<std::int64_t>(number);
    return value;
}
PropertyList PropertyList::unsignedInteger(std::uint64_t number) {
    PropertyList value;
    value.value_.emplace<std::uint64_t>(number);
    return value;
}
PropertyList PropertyList::real(double number) {
    PropertyList value;
    value.value_.emplace<double>(number);
    return value;
}
PropertyList PropertyList::string(std::string text) {
    PropertyList value;
    value.value_.emplace<std::string>(std::move(text));
    return value;
}
PropertyList PropertyList::data(Data bytes) {
    PropertyList value;
    value.value_.emplace<Data>(std::move(bytes));
    return value;
}
PropertyList PropertyList::array(Array items) {
    PropertyList value;
    value.value_.emplace<Array>(std::move(items));
    return value;
}
PropertyList PropertyList::dictionary(Dictionary entries) {
    PropertyList value;
    value.value_.emplace<Dictionary>(std::move(entries));
    return value;
}

std::optional<bool> PropertyList::asBoolean() const {
    if (const auto* flag = std::get_if<bool>(&value_)) return *flag;
    return std::nullopt;
}

std::optional<std::int64_t> PropertyList::asInteger() const {
    if (const auto* number = std::get_if<std::int64_t>(&value_)) return *number;
    if (const auto* number = std::get_if<std::uint64_t>(&value_)) {
        if (*number <= static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max()))
            return static_cast<std::int64_t>(*number);
    }
    return std::nullopt;
}

std::optional<std::uint64_t> PropertyList::asUnsignedInteger() const {
    if (const auto* number = std::get_if<std::uint64_t>(&value_)) return *number;
    if (const auto* number = std::get_if<std::int64_t>(&value_)) {
        if (*number >= 0) return static_cast<std::uint64_t>(*number);
    }
    return std::nullopt;
}

std::optional<double> PropertyList::asNumber() const {
    if (const auto* flag = std::get_if<bool>(&value_)) return *flag ? 1.0 : 0.0;
    if (const auto* number = std::get_if<std::int64_t>(&value_))
        return static_cast<double>(*number);
    if (const auto* number = std::get_if<std::uint64_t>(&value_))
        return static_cast<double>(*number);
    if (const auto* number = std::get_if<double>(&value_)) return *number;
    return std::nullopt;
}

const std::string* PropertyList::asString() const {
    return std::get_if<std::string>(&value_);
}
const PropertyList::Data* PropertyList::asData() const {
    return std::get_if<Data>(&value_);
}
const PropertyList::Array* PropertyList::asArray() const {
    return std::get_if<Array>(&value_);
}
PropertyList::Array* PropertyList::asArray() {
    return std::get_if<Array>(&value_);
}
const PropertyList::Dictionary* PropertyList::asDictionary() const {
    return std::get_if<Dictionary>(&value_);
}
PropertyList::Dictionary* PropertyList::asDictionary() {
    return std::get_if<Dictionary>(&value_);
}

const PropertyList* PropertyList::find(std::string_view key) const {
    const auto* entries = asDictionary();
    if (entries == nullptr) return nullptr;
    const auto found = entries->find(key);
    return found == entries->end() ? nullptr : &found->second;
}

namespace {

void appendQuoted(std::string& out, const std::string& text) {
    out += '"';
    for (const char c : text) {
        if (c == '"' || c == '\\') out += '\\';
        out += c;
    }
    out += '"';
}

void appendDescription(std::string& out, const PropertyList& value) {
    // Typed access rather than a switch on the kind: every pointer is checked where it is
    // used, which also keeps the optimiser's null-dereference analysis quiet.
    if (const auto flag = value.asBoolean()) {
        out += *flag ? "true" : "false";
    } else if (value.kind() == PropertyList::Kind::integer) {
        out += std::to_string(value.asInteger().value_or(0));
    } else if (value.kind() == PropertyList::Kind::unsignedInteger) {
        out += std::to_string(value.asUnsignedInteger().value_or(0));
        out += 'u';
    } else if (value.kind() == PropertyList::Kind::real) {
        const double number = value.asNumber().value_or(0.0);
        if (std::isfinite(number)) {
            char text[40];
            std::snprintf(text, sizeof text, "%.17g", number);
            out += text;
        } else {
            out += std::isnan(number) ? "nan" : (number > 0 ? "inf" : "-inf");
        }
    } else if (const auto* text = value.asString()) {
        appendQuoted(out, *text);
    } else if (const auto* bytes = value.asData()) {
        out += "<" + std::to_string(bytes->size()) + " bytes>";
    } else if (const auto* items = value.asArray()) {
        out += '[';
        bool first = true;
        for (const auto& item : *items) {
            if (!first) out += ", ";
            first = false;
            appendDescription(out, item);
        }
        out += ']';
    } else if (const auto* entries = value.asDictionary()) {
        out += '{';
        bool first = true;
        for (const auto& [key, item] : *entries) {
            if (!first) out += ", ";
            first = false;
            appendQuoted(out, key);
            out += ": ";
            appendDescription(out, item);
        }
        out += '}';
    } else {
        out += "null";
    }
}

} // namespace

std::string PropertyList::description() const {
    std::string out;
    appendDescription(out, *this);
    return out;
}

} // namespace brightmix
