#include "platform/linux/settings/PropertyListFileDefaults.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <fstream>
#include <limits>
#include <memory>
#include <plist/plist.h>
#include <sstream>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

#include "platform/linux/settings/PropertyListBounds.h"

namespace brightmix {

namespace {

// Seconds between 1970-01-01 and 2001-01-01, the epoch of property-list dates.
constexpr double kPropertyListDateEpoch = 978307200.0;

struct PlistFree {
    void operator()(plist_t node) const { plist_free(node); }
};
using PlistNode = std::unique_ptr<void, PlistFree>;

std::string systemMessage(int error) {
    return std::strerror(error);
}

// The length of the UTF-8 sequence at `index` (a multi-byte one), or 0 when it is not valid.
std::size_t utf8SequenceLength(std::string_view text, std::size_t index) {
    const auto c = static_cast<unsigned char>(text[index]);
    {
        std::size_t length = 0;
        std::uint32_t codePoint = 0;
        if ((c & 0xE0) == 0xC0) {
            length = 2;
            codePoint = c & 0x1F;
        } else if ((c & 0xF0) == 0xE0) {
            length = 3;
            codePoint = c & 0x0F;
        } else if ((c & 0xF8) == 0xF0) {
            length = 4;
            codePoint = c & 0x07;
        } else {
            return 0;
        }
        if (index + length > text.size()) return 0;
        for (std::size_t k = 1; k < length; ++k) {
            const auto next = static_cast<unsigned char>(text[index + k]);
            if ((next & 0xC0) != 0x80) return 0;
            codePoint = (codePoint << 6) | (next & 0x3F);
        }
        const std::uint32_t smallest[] = {0, 0, 0x80, 0x800, 0x10000};
        if (codePoint < smallest[length] || codePoint > 0x10FFFF ||
            (codePoint >= 0xD800 && codePoint <= 0xDFFF)) {
            return 0;
        }
        return length;
    }
}

// Text XML 1.0 can carry: valid UTF-8 without control characters other than tab and breaks,
// and without the two non-characters U+FFFE and U+FFFF.
bool isXMLSafeText(std::string_view text) {
    std::size_t index = 0;
    while (index < text.size()) {
        const auto c = static_cast<unsigned char>(text[index]);
        if (c < 0x80) {
            if ((c < 0x20 && c != '\t' && c != '\n' && c != '\r') || c == 0x7F) return false;
            ++index;
            continue;
        }
        const std::size_t length = utf8SequenceLength(text, index);
        if (length == 0) return false;
        const std::string_view sequence = text.substr(index, length);
        if (sequence == "\xEF\xBF\xBE" || sequence == "\xEF\xBF\xBF") return false;
        index += length;
    }
    return true;
}

// Text with every byte that starts no valid UTF-8 sequence replaced by U+FFFD: a property
// list stores text as Unicode, so such bytes cannot be kept as they are in any form.
std::string validUTF8(std::string_view text) {
    std::string result;
    result.reserve(text.size());
    std::size_t index = 0;
    while (index < text.size()) {
        const auto c = static_cast<unsigned char>(text[index]);
        const std::size_t length = c < 0x80 ? 1 : utf8SequenceLength(text, index);
        if (length == 0) {
            result += "\xEF\xBF\xBD";
            ++index;
        } else {
            result.append(text.substr(index, length));
            index += length;
        }
    }
    return result;
}

bool isXMLSafe(const PropertyList& value) {
    if (const std::string* text = value.asString()) return isXMLSafeText(*text);
    if (const PropertyList::Array* items = value.asArray()) {
        for (const PropertyList& item : *items) {
            if (!isXMLSafe(item)) return false;
        }
    }
    if (const PropertyList::Dictionary* entries = value.asDictionary()) {
        for (const auto& [key, entry] : *entries) {
            if (!isXMLSafeText(key) || !isXMLSafe(entry)) return false;
        }
    }
    return true;
}

// None for a null value, which a property list cannot hold.
plist_t toNode(const PropertyList& value) {
    switch (value.kind()) {
    case PropertyList::Kind::null:
        return nullptr;
    case PropertyList::Kind::boolean:
        return plist_new_bool(*value.asBoolean() ? 1 : 0);
    case PropertyList::Kind::integer:
        return plist_new_uint(static_cast<std::uint64_t>(*value.asInteger()));
    case PropertyList::Kind::unsignedInteger: {
        const std::uint64_t number = *value.asUnsignedInteger();
        if (number > static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())) {
            return plist_new_real(static_cast<double>(number));
        }
        return plist_new_uint(number);
    }
    case PropertyList::Kind::real:
        return plist_new_real(*value.asNumber());
    case PropertyList::Kind::string:
        return plist_new_string(validUTF8(*value.asString()).c_str());
    case PropertyList::Kind::data: {
        const PropertyList::Data& bytes = *value.asData();
        return plist_new_data(reinterpret_cast<const char*>(bytes.data()),
                              static_cast<std::uint64_t>(bytes.size()));
    }
    case PropertyList::Kind::array: {
        plist_t array = plist_new_array();
        for (const PropertyList& item : *value.asArray()) {
            if (plist_t node = toNode(item)) plist_array_append_item(array, node);
        }
        return array;
    }
    case PropertyList::Kind::dictionary: {
        plist_t dictionary = plist_new_dict();
        for (const auto& [key, entry] : *value.asDictionary()) {
            if (plist_t node = toNode(entry)) {
                plist_dict_set_item(dictionary, validUTF8(key).c_str(), node);
            }
        }
        return dictionary;
    }
    }
    return nullptr;
}

// None for node kinds with no counterpart, and for a container deeper than the nesting bound,
// which also sets `isTooDeep`. `level` is the level a container at `node` would have.
std::optional<PropertyList> fromNode(plist_t node, int level, bool& isTooDeep) {
    const plist_type type = plist_get_node_type(node);
    if ((type == PLIST_ARRAY || type == PLIST_DICT) && level > PropertyList::kDeepestNesting) {
        isTooDeep = true;
        return std::nullopt;
    }
    switch (type) {
    case PLIST_BOOLEAN: {
        std::uint8_t flag = 0;
        plist_get_bool_val(node, &flag);
        return PropertyList::boolean(flag != 0);
    }
    case PLIST_UINT: {
        std::uint64_t number = 0;
        plist_get_uint_val(node, &number);
        return PropertyList::integer(static_cast<std::int64_t>(number));
    }
    case PLIST_UID: {
        std::uint64_t number = 0;
        plist_get_uid_val(node, &number);
        return PropertyList::unsignedInteger(number);
    }
    case PLIST_REAL: {
        double number = 0;
        plist_get_real_val(node, &number);
        return PropertyList::real(number);
    }
    case PLIST_DATE: {
        std::int32_t seconds = 0;
        std::int32_t microseconds = 0;
        plist_get_date_val(node, &seconds, &microseconds);
        return PropertyList::real(kPropertyListDateEpoch + seconds + microseconds / 1e6);
    }
    case PLIST_STRING: {
        // Not through libplist's copying getter: it asserts (aborts) on text holding U+0000,
        // which either form can carry. The text ends there, as it does when it is written.
        std::uint64_t length = 0;
        const char* text = plist_get_string_ptr(node, &length);
        if (text == nullptr) return PropertyList(std::string());
        return PropertyList(std::string(text, std::find(text, text + length, '\0')));
    }
    case PLIST_KEY: {
        char* text = nullptr;
        plist_get_key_val(node, &text);
        std::string result = text != nullptr ? text : "";
        std::free(text);
        return PropertyList(std::move(result));
    }
    case PLIST_DATA: {
        char* bytes = nullptr;
        std::uint64_t length = 0;
        plist_get_data_val(node, &bytes, &length);
        PropertyList::Data data(reinterpret_cast<std::uint8_t*>(bytes),
                                reinterpret_cast<std::uint8_t*>(bytes) + length);
        std::free(bytes);
        return PropertyList::data(std::move(data));
    }
    case PLIST_ARRAY: {
        PropertyList::Array items;
        const std::uint32_t count = plist_array_get_size(node);
        for (std::uint32_t index = 0; index < count; ++index) {
            if (auto item = fromNode(plist_array_get_item(node, index), level + 1, isTooDeep)) {
                items.push_back(std::move(*item));
            }
            if (isTooDeep) return std::nullopt;
        }
        return PropertyList(std::move(items));
    }
    case PLIST_DICT: {
        PropertyList::Dictionary entries;
        plist_dict_iter iterator = nullptr;
        plist_dict_new_iter(node, &iterator);
        for (;;) {
            char* key = nullptr;
            plist_t entry = nullptr;
            plist_dict_next_item(node, iterator, &key, &entry);
            if (entry == nullptr) {
                std::free(key);
                break;
            }
            if (auto value = fromNode(entry, level + 1, isTooDeep)) {
                entries.insert_or_assign(key != nullptr ? key : "", std::move(*value));
            }
            std::free(key);
            if (isTooDeep) break;
        }
        std::free(iterator);
        if (isTooDeep) return std::nullopt;
        return PropertyList(std::move(entries));
    }
    default:
        return std::nullopt;
    }
}

std::string localTimeStamp() {
    const std::time_t now = std::time(nullptr);
    std::tm local{};
    localtime_r(&now, &local);
    char text[32];
    std::strftime(text, sizeof text, "%Y%m%d-%H%M%S", &local);
    return text;
}

} // namespace

std::filesystem::path PropertyListFileDefaults::fileForDomain(std::string_view bundleIdentifier) {
    std::filesystem::path folder;
    if (const char* configured = std::getenv("XDG_CONFIG_HOME");
        configured != nullptr && configured[0] == '/') {
        folder = configured;
    } else if (const char* home = std::getenv("HOME"); home != nullptr && home[0] != '\0') {
        folder = std::filesystem::path(home) / ".config";
    } else {
        folder = "/tmp";
    }
    return folder / "brightmix" / (std::string(bundleIdentifier) + ".plist");
}

PropertyListFileDefaults::PropertyListFileDefaults(std::filesystem::path file, FaultInjector faults)
    : file_(std::move(file)), faults_(std::move(faults)) {
    load();
}

std::optional<PropertyList> PropertyListFileDefaults::get(std::string_view key) const {
    const auto found = values_.find(key);
    if (found == values_.end()) return std::nullopt;
    return found->second;
}

void PropertyListFileDefaults::set(std::string_view key, PropertyList value) {
    if (value.isNull()) {
        remove(key);
        return;
    }
    values_.insert_or_assign(std::string(key), std::move(value));
    save();
}

void PropertyListFileDefaults::remove(std::string_view key) {
    const auto found = values_.find(key);
    if (found == values_.end()) return;
    values_.erase(found);
    save();
}

void PropertyListFileDefaults::removeDomain() {
    values_.clear();
    std::error_code error;
    std::filesystem::remove(file_, error);
    if (error) {
        reportWriteError("Brightmix could not delete its settings file " + file_.string() + ": " +
                         error.message() + ".");
        return;
    }
    isSavingAllowed_ = true;
    noteWriteSucceeded();
}

std::string PropertyListFileDefaults::serialize(const PropertyList::Dictionary& values) {
    const PlistNode root(toNode(PropertyList(values)));
    char* bytes = nullptr;
    std::uint32_t length = 0;
    if (isXMLSafe(PropertyList(values))) {
        plist_to_xml(root.get(), &bytes, &length);
        std::string text(bytes != nullptr ? bytes : "", length);
        plist_to_xml_free(bytes);
        return text;
    }
    plist_to_bin(root.get(), &bytes, &length);
    std::string binary(bytes != nullptr ? bytes : "", length);
    plist_to_bin_free(bytes);
    return binary;
}

std::optional<PropertyList::Dictionary> PropertyListFileDefaults::parse(std::string_view bytes) {
    std::string reason;
    return parse(bytes, reason);
}

std::optional<PropertyList::Dictionary> PropertyListFileDefaults::parse(std::string_view bytes,
                                                                        std::string& reason) {
    static const std::string tooDeepReason =
        "its values nest deeper than " + std::to_string(PropertyList::kDeepestNesting) + " levels";
    reason = "it is not a settings file";
    if (bytes.empty()) return std::nullopt;
    if (bytes.size() > kLargestFile) {
        reason = "it is larger than " + std::to_string(kLargestFile / (1024 * 1024)) + " MiB";
        return std::nullopt;
    }
    switch (measurePropertyListBytes(bytes)) {
    case PropertyListBytes::withinBounds:
        break;
    case PropertyListBytes::tooDeep:
        reason = tooDeepReason;
        return std::nullopt;
    case PropertyListBytes::tooMany:
        reason = "it holds more than " + std::to_string(kMostPropertyListElements) + " values";
        return std::nullopt;
    case PropertyListBytes::malformed:
        return std::nullopt;
    }
    plist_t node = nullptr;
    plist_from_memory(bytes.data(), static_cast<std::uint32_t>(bytes.size()), &node);
    PlistNode root(node);
    if (!root || plist_get_node_type(root.get()) != PLIST_DICT) return std::nullopt;
    bool isTooDeep = false;
    std::optional<PropertyList> value = fromNode(root.get(), 1, isTooDeep);
    if (isTooDeep) {
        // The scan measured less than libplist built, so freeing the tree (libplist recurses
        // once per level) could exhaust the stack. Leaking one tree at start-up is the lesser
        // harm; the fuzzer's leak check reports it.
        static_cast<void>(root.release());
        reason = tooDeepReason;
        return std::nullopt;
    }
    if (!value || value->asDictionary() == nullptr) return std::nullopt;
    return std::move(*value->asDictionary());
}

void PropertyListFileDefaults::load() {
    std::error_code error;
    const bool exists = std::filesystem::exists(file_, error);
    if (error) {
        isSavingAllowed_ = false;
        reportWriteError("Brightmix cannot reach its settings file " + file_.string() + ": " +
                         error.message() + ". Changes are kept until Brightmix quits.");
        return;
    }
    if (!exists) return;
    const std::uintmax_t size = std::filesystem::file_size(file_, error);
    if (error || size > kLargestFile) {
        setAside(error ? error.message()
                       : "it is larger than " + std::to_string(kLargestFile / (1024 * 1024)) +
                             " MiB");
        return;
    }
    std::ifstream stream(file_, std::ios::binary);
    std::ostringstream contents;
    contents << stream.rdbuf();
    if (!stream) {
        setAside("it cannot be read");
        return;
    }
    std::string reason;
    std::optional<PropertyList::Dictionary> values = parse(contents.str(), reason);
    if (!values) {
        setAside(reason);
        return;
    }
    values_ = std::move(*values);
}

void PropertyListFileDefaults::setAside(const std::string& reason) {
    const std::string base = file_.string() + ".corrupt-" + localTimeStamp();
    std::filesystem::path target = base;
    for (int attempt = 2; std::filesystem::exists(target); ++attempt) {
        target = base + "-" + std::to_string(attempt);
    }
    setAsideReason_ = reason;
    std::error_code error;
    std::filesystem::rename(file_, target, error);
    if (error) {
        // Saving now would replace the only copy of the user's settings.
        isSavingAllowed_ = false;
        reportWriteError("Brightmix could not read its settings file " + file_.string() + " (" +
                         reason + ") and could not move it aside: " + error.message() +
                         ". Changes are kept until Brightmix quits.");
        return;
    }
    setAsideFile_ = target;
}

void PropertyListFileDefaults::save() {
    if (!isSavingAllowed_) return;
    const std::filesystem::path folder = file_.parent_path();
    auto fail = [&](const std::string& what, int error) {
        reportWriteError("Brightmix could not save its settings in " + folder.string() + ": " +
                         what + " failed (" + systemMessage(error) +
                         "). Changes are kept until Brightmix quits.");
    };
    auto injected = [&](SaveStep step) { return faults_ ? faults_(step) : 0; };

    if (int error = injected(SaveStep::createFolder)) return fail("creating the folder", error);
    std::error_code folderError;
    std::filesystem::create_directories(folder, folderError);
    if (folderError) return fail("creating the folder", folderError.value());

    std::string temporary = (folder / ("." + file_.filename().string() + ".XXXXXX")).string();
    if (int error = injected(SaveStep::createTemporary)) return fail("creating a file", error);
    const int descriptor = mkostemp(temporary.data(), O_CLOEXEC);
    if (descriptor < 0) return fail("creating a file", errno);
    bool isOpen = true;
    auto abandon = [&](const std::string& what, int error) {
        if (isOpen) ::close(descriptor);
        ::unlink(temporary.c_str());
        fail(what, error);
    };

    const std::string bytes = serialize(values_);
    if (int error = injected(SaveStep::write)) return abandon("writing", error);
    std::size_t written = 0;
    while (written < bytes.size()) {
        const ssize_t count = ::write(descriptor, bytes.data() + written, bytes.size() - written);
        if (count < 0) {
            if (errno == EINTR) continue;
            return abandon("writing", errno);
        }
        written += static_cast<std::size_t>(count);
    }
    if (int error = injected(SaveStep::flush)) return abandon("flushing to disk", error);
    if (::fsync(descriptor) != 0) return abandon("flushing to disk", errno);
    isOpen = false;
    if (int error = injected(SaveStep::close)) {
        ::close(descriptor);
        return abandon("closing", error);
    }
    if (::close(descriptor) != 0) return abandon("closing", errno);
    if (int error = injected(SaveStep::rename)) return abandon("replacing the file", error);
    if (::rename(temporary.c_str(), file_.c_str()) != 0)
        return abandon("replacing the file", errno);

    // The new file is in place; flushing the folder makes the rename itself durable.
    if (int error = injected(SaveStep::flushFolder)) return fail("flushing the folder", error);
    const int folderDescriptor = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (folderDescriptor >= 0) {
        const int result = ::fsync(folderDescriptor);
        const int error = errno;
        ::close(folderDescriptor);
        if (result != 0 && error != EINVAL) return fail("flushing the folder", error);
    }
    noteWriteSucceeded();
}

} // namespace brightmix
