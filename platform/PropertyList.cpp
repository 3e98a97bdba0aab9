// PropertyList: construction, typed access and the text form.
#include "platform/PropertyList.h"

#include <cmath>
#include <cstdio>
#include <limits>

namespace brightmix {

PropertyList PropertyList::boolean(bool flag) { return PropertyList(Value(flag)); }
PropertyList PropertyList::integer(std::int64_t number) { return PropertyList(Value(number)); }
PropertyList PropertyList::unsignedInteger(std::uint64_t number) {
    return PropertyList(Value(number));
}
PropertyList PropertyList::real(double number) { return PropertyList(Value(number)); }
PropertyList PropertyList::string(std::string text) { return PropertyList(Value(std::move(text))); }
PropertyList PropertyList::data(Data bytes) { return PropertyList(Value(std::move(bytes))); }
PropertyList PropertyList::array(Array items) { return PropertyList(Value(std::move(items))); }
PropertyList PropertyList::dictionary(Dictionary entries) {
    return PropertyList(Value(std::move(entries)));
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

const std::string* PropertyList::asString() const { return std::get_if<std::string>(&value_); }
const PropertyList::Data* PropertyList::asData() const { return std::get_if<Data>(&value_); }
const PropertyList::Array* PropertyList::asArray() const { return std::get_if<Array>(&value_); }
PropertyList::Array* PropertyList::asArray() { return std::get_if<Array>(&value_); }
const PropertyList::Dictionary* PropertyList::asDictionary() const {
    return std::get_if<Dictionary>(&value_);
}
PropertyList::Dictionary* PropertyList::asDictionary() { return std::get_if<Dictionary>(&value_); }

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
    switch (value.kind()) {
    case PropertyList::Kind::null:
        out += "null";
        break;
    case PropertyList::Kind::boolean:
        out += *value.asBoolean() ? "true" : "false";
        break;
    case PropertyList::Kind::integer:
        out += std::to_string(*value.asInteger());
        break;
    case PropertyList::Kind::unsignedInteger:
        out += std::to_string(*value.asUnsignedInteger());
        out += 'u';
        break;
    case PropertyList::Kind::real: {
        const double number = *value.asNumber();
        if (std::isfinite(number)) {
            char text[40];
            std::snprintf(text, sizeof text, "%.17g", number);
            out += text;
        } else {
            out += std::isnan(number) ? "nan" : (number > 0 ? "inf" : "-inf");
        }
        break;
    }
    case PropertyList::Kind::string:
        appendQuoted(out, *value.asString());
        break;
    case PropertyList::Kind::data:
        out += "<" + std::to_string(value.asData()->size()) + " bytes>";
        break;
    case PropertyList::Kind::array: {
        out += '[';
        bool first = true;
        for (const auto& item : *value.asArray()) {
            if (!first) out += ", ";
            first = false;
            appendDescription(out, item);
        }
        out += ']';
        break;
    }
    case PropertyList::Kind::dictionary: {
        out += '{';
        bool first = true;
        for (const auto& [key, item] : *value.asDictionary()) {
            if (!first) out += ", ";
            first = false;
            appendQuoted(out, key);
            out += ": ";
            appendDescription(out, item);
        }
        out += '}';
        break;
    }
    }
}

}  // namespace

std::string PropertyList::description() const {
    std::string out;
    appendDescription(out, *this);
    return out;
}

}  // namespace brightmix
