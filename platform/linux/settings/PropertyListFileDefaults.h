// The settings domain on Linux: one property-list file per domain,
// $XDG_CONFIG_HOME/brightmix/<bundle identifier>.plist ($XDG_CONFIG_HOME defaults to
// ~/.config), read once when the store is made and rewritten whole on every change.
//
// Nothing is ever lost:
// - a save writes a temporary file in the same folder, flushes it to disk and renames it over
//   the old file, then flushes the folder; a crash at any moment leaves the old or the new
//   file whole, and a failed save removes its temporary file;
// - a file that cannot be read or parsed, or whose root is not a dictionary, is moved aside
//   as "<file>.corrupt-<local time>" and the store starts empty; the next save makes a
//   fresh file. So is a file beyond the bounds below, measured before libplist reads it
//   (PropertyListBounds): larger than kLargestFile, nesting deeper than
//   PropertyList::kDeepestNesting, or holding more than kMostPropertyListElements values;
// - a folder that cannot be created or written is reported once through the write-error
//   handler (see Defaults); the values stay in memory.
//
// Files are written as XML property lists, which support can read; a domain holding text
// that XML cannot carry (control characters, invalid UTF-8) is written in the binary form
// instead. Both forms are read. Types kept: Boolean, integer, real, string, data, array and
// dictionary; an unsigned integer above the signed 64-bit range is stored as a real, a null
// value is not stored, and dates read as reals (seconds since 1970).
//
// Thread: control (the main thread). Realtime-safe: no.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/Defaults.h"
#include "platform/PropertyList.h"

namespace brightmix {

class PropertyListFileDefaults final : public Defaults {
public:
    // The settings are a few kilobytes: the largest values, the labels and the app rules, take
    // some hundred bytes per device or app, so even thousands of each stay well under 1 MiB.
    // A larger file is no settings file of ours, and reading it would only cost memory.
    static constexpr std::uintmax_t kLargestFile = 4u * 1024u * 1024u;

    // The steps of one save, in order.
    enum class SaveStep { createFolder, createTemporary, write, flush, close, rename, flushFolder };
    // Asked before each step of a save; a non-zero errno fails that step as the system would.
    // For tests of interrupted saves.
    using FaultInjector = std::function<int(SaveStep)>;

    // The file of a domain under the user's configuration folder.
    static std::filesystem::path fileForDomain(std::string_view bundleIdentifier);

    // Reads `file` (absent: an empty domain). Never throws for the file's contents.
    explicit PropertyListFileDefaults(std::filesystem::path file, FaultInjector faults = {});

    std::optional<PropertyList> get(std::string_view key) const override;
    // A null value removes the key.
    void set(std::string_view key, PropertyList value) override;
    void remove(std::string_view key) override;
    // Forgets every key and deletes the file.
    void removeDomain() override;

    const std::filesystem::path& file() const { return file_; }
    const PropertyList::Dictionary& values() const { return values_; }
    // Where an unreadable file was moved when the store was made, if it was, and why it could
    // not be read ("it is not a settings file", "its values nest deeper than 64 levels", ...).
    const std::optional<std::filesystem::path>& setAsideFile() const { return setAsideFile_; }
    const std::string& setAsideReason() const { return setAsideReason_; }

    // The domain as file bytes (XML, or binary when XML cannot carry it), and back: none
    // when the bytes are no property list or its root is not a dictionary.
    static std::string serialize(const PropertyList::Dictionary& values);
    static std::optional<PropertyList::Dictionary> parse(std::string_view bytes);
    // The same, saying in `reason` why bytes are refused.
    static std::optional<PropertyList::Dictionary> parse(std::string_view bytes,
                                                         std::string& reason);

private:
    void load();
    void save();
    void setAside(const std::string& reason);

    std::filesystem::path file_;
    FaultInjector faults_;
    PropertyList::Dictionary values_;
    std::optional<std::filesystem::path> setAsideFile_;
    std::string setAsideReason_;
    // False while an unreadable file could not be moved aside: saving would overwrite it.
    bool isSavingAllowed_ = true;
};

} // namespace brightmix
