#include "platform/linux/settings/PropertyListBounds.h"

#include <algorithm>
#include <cstddef>
#include <unordered_map>
#include <unordered_set>

#include "platform/PropertyList.h"

namespace brightmix {

namespace {

constexpr std::size_t kDeepest = PropertyList::kDeepestNesting;

// The XML form, token by token as libplist 2.2's reader takes it: processing instructions and
// DOCTYPE declarations skip double-quoted runs, comments do not, text ends at the first '<'
// that opens no comment or CDATA section. Any difference in how a token ends would let a file
// hide nesting from the scan, so each rule below follows the library's, quirks included.
class XMLScan {
public:
    explicit XMLScan(std::string_view bytes)
        : position_(bytes.data()), end_(bytes.data() + bytes.size()) {}

    PropertyListBytes run() {
        // Open elements as libplist lists them (<plist> and non-empty containers), and the
        // level of the container new elements go into (0 until the root exists).
        std::uint64_t openElements = 0;
        std::size_t level = 0;
        bool hasRoot = false;
        std::uint64_t elements = 0;
        for (;;) {
            skipWhitespace();
            if (atEnd()) return PropertyListBytes::withinBounds;
            if (*position_ != '<') return PropertyListBytes::malformed;
            ++position_;
            if (atEnd()) return PropertyListBytes::malformed;
            if (*position_ == '?') {
                if (!find("?>", true)) return PropertyListBytes::malformed;
                position_ += 2;
                continue;
            }
            if (*position_ == '!') {
                if (!skipDeclaration()) return PropertyListBytes::malformed;
                continue;
            }

            const char* const nameStart = position_;
            findAny(" \r\n\t<>", false);
            if (atEnd()) return PropertyListBytes::malformed;
            std::string_view tag(nameStart, static_cast<std::size_t>(position_ - nameStart));
            if (*position_ != '>') findAny("<>", true);
            if (atEnd() || *position_ != '>') return PropertyListBytes::malformed;
            const bool isEmpty = position_[-1] == '/';
            if (isEmpty) {
                tag = tag.substr(
                    0, std::min<std::size_t>(tag.size(),
                                             static_cast<std::size_t>(position_ - nameStart - 1)));
            }
            ++position_;

            if (tag == "plist") {
                // A second top-level <plist> ends the reading; the first may not be empty.
                if (openElements == 0 && hasRoot) return PropertyListBytes::withinBounds;
                if (isEmpty) return PropertyListBytes::malformed;
                ++openElements;
                continue;
            }
            if (tag == "/plist") {
                if (openElements == 0) return PropertyListBytes::malformed;
                --openElements;
                continue;
            }
            if (!tag.empty() && tag.front() == '/') {
                if (openElements == 0 || level == 0) return PropertyListBytes::malformed;
                --openElements;
                // Closing the root ends the reading; whatever follows is never looked at.
                if (--level == 0) return PropertyListBytes::withinBounds;
                continue;
            }
            if (++elements > kMostPropertyListElements) return PropertyListBytes::tooMany;
            if (tag == "dict" || tag == "array") {
                const std::size_t containerLevel = hasRoot ? level + 1 : 1;
                if (containerLevel > kDeepest) return PropertyListBytes::tooDeep;
                // An empty root still takes the elements that follow it.
                if (!hasRoot || !isEmpty) level = containerLevel;
                hasRoot = true;
                if (!isEmpty) ++openElements;
                continue;
            }
            if (tag != "key" && tag != "string" && tag != "integer" && tag != "real" &&
                tag != "true" && tag != "false" && tag != "data" && tag != "date") {
                return PropertyListBytes::malformed;
            }
            if (!isEmpty && !skipText(tag)) return PropertyListBytes::malformed;
            // A root that is no container is the whole document.
            if (!hasRoot) return PropertyListBytes::withinBounds;
        }
    }

private:
    bool atEnd() const { return position_ >= end_; }
    std::ptrdiff_t left() const { return end_ - position_; }
    bool startsWith(std::string_view text) const {
        return left() >= static_cast<std::ptrdiff_t>(text.size()) &&
               std::equal(text.begin(), text.end(), position_);
    }

    void skipWhitespace() {
        while (!atEnd() && (*position_ == ' ' || *position_ == '\t' || *position_ == '\r' ||
                            *position_ == '\n')) {
            ++position_;
        }
    }

    void findChar(char c) {
        while (!atEnd() && *position_ != c)
            ++position_;
    }

    // Stops on one of `stops`, or at the end; a quoted run is passed over whole.
    void findAny(std::string_view stops, bool skipsQuotes) {
        while (!atEnd()) {
            if (skipsQuotes && *position_ == '"') {
                ++position_;
                findChar('"');
                if (atEnd()) return;
            }
            if (stops.find(*position_) != std::string_view::npos) return;
            ++position_;
        }
    }

    // Leaves the position on `text` and answers whether it is there.
    bool find(std::string_view text, bool skipsQuotes) {
        const auto length = static_cast<std::ptrdiff_t>(text.size());
        while (left() > length) {
            if (startsWith(text)) break;
            if (skipsQuotes && *position_ == '"') {
                ++position_;
                findChar('"');
                if (atEnd()) return false;
            }
            ++position_;
        }
        return startsWith(text);
    }

    // After "<!": a comment or a DOCTYPE declaration, with or without an internal subset.
    bool skipDeclaration() {
        if (left() > 3 && startsWith("!--")) {
            position_ += 3;
            if (!find("-->", false)) return false;
            position_ += 3;
            return true;
        }
        if (left() > 8 && startsWith("!DOCTYPE")) {
            position_ += 8;
            bool hasSubset = false;
            while (!atEnd()) {
                findAny(" \t\r\n[>", true);
                if (atEnd()) return false;
                if (*position_ == '[') {
                    hasSubset = true;
                    break;
                }
                if (*position_ == '>') {
                    ++position_;
                    break;
                }
                skipWhitespace();
            }
            if (hasSubset) {
                if (!find("]>", true)) return false;
                position_ += 2;
            }
            return true;
        }
        return false;
    }

    // A value's text with its comments and CDATA sections, through the closing tag.
    bool skipText(std::string_view tag) {
        for (;;) {
            findChar('<');
            if (atEnd()) return false;
            ++position_;
            if (atEnd()) return false;
            if (*position_ == '/') break;
            if (*position_ != '!') return false;
            ++position_;
            if (left() <= 1) return false;
            if (startsWith("--")) {
                position_ += 2;
                if (!find("-->", false)) return false;
                position_ += 3;
            } else if (*position_ == '[') {
                ++position_;
                if (left() <= 8 || !startsWith("CDATA[")) return false;
                position_ += 6;
                if (!find("]]>", false)) return false;
                position_ += 3;
            } else {
                return false;
            }
        }
        ++position_;
        if (left() <= static_cast<std::ptrdiff_t>(tag.size()) || !startsWith(tag)) return false;
        position_ += tag.size();
        skipWhitespace();
        if (atEnd() || *position_ != '>') return false;
        ++position_;
        return true;
    }

    const char* position_;
    const char* end_;
};

// The binary form: the trailer's 32 bytes locate the offset table, the table locates each
// object, and arrays, sets and dictionaries refer to their members by index. libplist walks
// those references from the root, copying a member each time it is referred to, so a
// container's elements are counted once per reference; each container's height and count are
// kept, so that a shared one is measured once however often it is referred to.
class BinaryScan {
public:
    explicit BinaryScan(std::string_view bytes)
        : data_(reinterpret_cast<const unsigned char*>(bytes.data())), size_(bytes.size()) {}

    PropertyListBytes run() {
        constexpr std::size_t kHeader = 8;
        constexpr std::size_t kTrailer = 32;
        if (size_ < kHeader + kTrailer) return PropertyListBytes::malformed;
        const unsigned char* trailer = data_ + size_ - kTrailer;
        offsetSize_ = trailer[6];
        referenceSize_ = trailer[7];
        objectCount_ = number(trailer + 8, 8);
        const std::uint64_t root = number(trailer + 16, 8);
        const std::uint64_t tableOffset = number(trailer + 24, 8);
        tableStart_ = tableOffset;
        const std::uint64_t trailerStart = size_ - kTrailer;
        if (objectCount_ == 0 || offsetSize_ == 0 || referenceSize_ == 0 || root >= objectCount_ ||
            tableOffset < kHeader || tableOffset >= trailerStart ||
            objectCount_ > (trailerStart - tableOffset) / offsetSize_) {
            return PropertyListBytes::malformed;
        }
        return visit(root, 1).verdict;
    }

private:
    struct Measure {
        PropertyListBytes verdict = PropertyListBytes::withinBounds;
        std::size_t height = 0; // container levels, this one included
        std::uint64_t elements = 1;
    };
    struct Known {
        bool isFinished = false;
        Measure measure;
    };

    // A big-endian number of `length` bytes; of a longer field libplist reads the last eight.
    static std::uint64_t number(const unsigned char* bytes, std::size_t length) {
        if (length > 8) {
            bytes += length - 8;
            length = 8;
        }
        std::uint64_t value = 0;
        for (std::size_t i = 0; i < length; ++i)
            value = (value << 8) | bytes[i];
        return value;
    }

    // The count in the marker byte of the object at `offset`, or the integer object after it
    // (of 1, 2, 4, 8 ... bytes) when the marker says 15, and where the members or characters
    // begin.
    bool readCount(std::uint64_t offset, std::uint64_t& count, std::uint64_t& position) const {
        position = offset + 1;
        count = data_[offset] & 0x0Fu;
        if (count != 0x0Fu) return true;
        if (position >= tableStart_ || (data_[position] & 0xF0u) != 0x10u) return false;
        const std::uint64_t length = std::uint64_t{1} << (data_[position] & 0x0Fu);
        ++position;
        if (length > tableStart_ - position) return false;
        count = number(data_ + position, static_cast<std::size_t>(length));
        position += length;
        return true;
    }

    static Measure failed(PropertyListBytes verdict) {
        Measure measure;
        measure.verdict = verdict;
        return measure;
    }

    // The object `index`, reached as a member of a container at `level - 1`. Recurses only
    // into containers, and never past the nesting bound.
    Measure visit(std::uint64_t index, std::size_t level) {
        if (index >= objectCount_) return failed(PropertyListBytes::malformed);
        const std::uint64_t offset = number(data_ + tableStart_ + index * offsetSize_, offsetSize_);
        if (offset >= tableStart_) return failed(PropertyListBytes::malformed);
        const unsigned kind = data_[offset] & 0xF0u;
        if (kind != 0xA0u && kind != 0xC0u && kind != 0xD0u) return {}; // no members
        if (level > kDeepest) return failed(PropertyListBytes::tooDeep);

        if (const auto found = known_.find(index); found != known_.end()) {
            // On the path to this object already: libplist refuses the loop.
            if (!found->second.isFinished) return failed(PropertyListBytes::malformed);
            if (level + found->second.measure.height - 1 > kDeepest) {
                return failed(PropertyListBytes::tooDeep);
            }
            return found->second.measure;
        }

        std::uint64_t count = 0;
        std::uint64_t position = 0;
        if (!readCount(offset, count, position)) return failed(PropertyListBytes::malformed);
        // Keys first, then values, for a dictionary.
        const std::uint64_t perMember = kind == 0xD0u ? 2 : 1;
        const std::uint64_t room = (tableStart_ - position) / referenceSize_;
        if (count > room / perMember) return failed(PropertyListBytes::malformed);
        const std::uint64_t references = count * perMember;

        known_[index] = Known{};
        Measure measure;
        measure.height = 1;
        for (std::uint64_t i = 0; i < references; ++i) {
            const std::uint64_t member =
                number(data_ + position + i * referenceSize_, referenceSize_);
            if (kind == 0xD0u && i < count && !isUsableKey(member)) {
                return failed(PropertyListBytes::malformed);
            }
            const Measure inner = visit(member, level + 1);
            if (inner.verdict != PropertyListBytes::withinBounds) return inner;
            measure.height = std::max(measure.height, inner.height + 1);
            measure.elements += inner.elements;
            if (measure.elements > kMostPropertyListElements) {
                return failed(PropertyListBytes::tooMany);
            }
        }
        known_[index] = Known{true, measure};
        return measure;
    }

    // libplist aborts on an assertion when it reads back a dictionary key holding U+0000; only
    // a UTF-16 key can (an ASCII one ends at its first zero byte). Other kinds of key are
    // libplist's to refuse. A key is read once however many dictionaries use it.
    bool isUsableKey(std::uint64_t index) {
        if (usableKeys_.count(index) != 0) return true;
        if (index >= objectCount_) return false;
        const std::uint64_t offset = number(data_ + tableStart_ + index * offsetSize_, offsetSize_);
        if (offset >= tableStart_ || (data_[offset] & 0xF0u) != 0x60u) return true;
        std::uint64_t count = 0;
        std::uint64_t position = 0;
        if (!readCount(offset, count, position) || count > (tableStart_ - position) / 2) {
            return false;
        }
        for (std::uint64_t unit = 0; unit < count; ++unit) {
            if (data_[position + 2 * unit] == 0 && data_[position + 2 * unit + 1] == 0) {
                return false;
            }
        }
        usableKeys_.insert(index);
        return true;
    }

    const unsigned char* data_;
    std::uint64_t size_;
    std::uint64_t offsetSize_ = 0;
    std::uint64_t referenceSize_ = 0;
    std::uint64_t objectCount_ = 0;
    std::uint64_t tableStart_ = 0;
    std::unordered_map<std::uint64_t, Known> known_;
    std::unordered_set<std::uint64_t> usableKeys_;
};

} // namespace

PropertyListBytes measurePropertyListBytes(std::string_view bytes) {
    if (bytes.substr(0, 8) == "bplist00") return BinaryScan(bytes).run();
    return XMLScan(bytes).run();
}

} // namespace brightmix
