// Settings files beyond the reader's bounds — nested deeper than a property list may nest,
// larger than a settings file can be, or expanding shared binary references past the element
// bound — are kept aside and give defaults like any unreadable file, without a crash; files
// at the bounds load. Neither does text holding U+0000 end the program. The scan that measures them
// before libplist does counts exactly what libplist builds, whatever comments, CDATA sections,
// quotes or references hide.
#include <cstdint>
#include <fstream>
#include <gtest/gtest.h>
#include <sstream>
#include <string>
#include <vector>

#include "Brightmix/AppSettings.h"
#include "platform/linux/settings/PropertyListBounds.h"
#include "platform/linux/settings/PropertyListFileDefaults.h"
#include "tests/support/TemporaryFolder.h"

namespace brightmix {
namespace {

constexpr int kDeepest = PropertyList::kDeepestNesting;

const char* const kXMLHeader = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
                               "<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" "
                               "\"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n"
                               "<plist version=\"1.0\">\n";

std::string repeated(std::string_view text, int times) {
    std::string result;
    result.reserve(text.size() * static_cast<std::size_t>(times));
    for (int i = 0; i < times; ++i)
        result += text;
    return result;
}

// Settings whose "deep" value nests `levels` levels deep, the root dictionary being level 1.
std::string nestedXML(int levels) {
    return std::string(kXMLHeader) + "<dict><key>volume</key><real>0.2</real><key>deep</key>" +
           repeated("<array>", levels - 1) + repeated("</array>", levels - 1) + "</dict></plist>\n";
}

// What nestedXML and nestedBinary hold under "deep".
PropertyList nestedValue(int levels) {
    PropertyList value = PropertyList::array();
    for (int level = 3; level <= levels; ++level)
        value = PropertyList::array({value});
    return value;
}

// A binary property list, object by object: each a marker byte and its payload, members
// referred to by index with four-byte references; object 0 is the root.
std::string binaryList(const std::vector<std::string>& objects) {
    const auto bigEndian = [](std::string& bytes, std::uint64_t value, int length) {
        for (int shift = 8 * (length - 1); shift >= 0; shift -= 8)
            bytes.push_back(static_cast<char>((value >> shift) & 0xFF));
    };
    std::string bytes = "bplist00";
    std::vector<std::uint64_t> offsets;
    for (const std::string& object : objects) {
        offsets.push_back(bytes.size());
        bytes += object;
    }
    const std::uint64_t table = bytes.size();
    for (std::uint64_t offset : offsets)
        bigEndian(bytes, offset, 4);
    bytes.append(6, '\0');
    bytes += '\x04'; // offset size
    bytes += '\x04'; // reference size
    bigEndian(bytes, objects.size(), 8);
    bigEndian(bytes, 0, 8);
    bigEndian(bytes, table, 8);
    return bytes;
}

std::string reference(std::uint32_t index) {
    return {static_cast<char>(index >> 24), static_cast<char>(index >> 16),
            static_cast<char>(index >> 8), static_cast<char>(index)};
}

// The root dictionary's "deep" is a chain of arrays, each holding the next `width` times:
// `levels` deep in all, and the innermost array's (empty) content repeated width^(levels-2)
// times once libplist has copied every reference.
std::string nestedBinary(int levels, int width = 1) {
    std::vector<std::string> objects = {"\xD1" + reference(1) + reference(2), "\x54"
                                                                              "deep"};
    for (int level = 2; level <= levels; ++level) {
        const auto index = static_cast<std::uint32_t>(objects.size());
        if (level == levels) {
            objects.push_back("\xA0");
        } else {
            objects.push_back(std::string(1, static_cast<char>(0xA0 + width)) +
                              repeated(reference(index + 1), width));
        }
    }
    return binaryList(objects);
}

std::string readFile(const std::filesystem::path& path) {
    std::ifstream stream(path, std::ios::binary);
    std::ostringstream contents;
    contents << stream.rdbuf();
    return contents.str();
}

class SettingsFileBoundsTest : public ::testing::Test {
protected:
    testing::TemporaryFolder folder;
    std::filesystem::path file = folder / "com.corvale.brightmix.plist";

    void write(const std::string& bytes) { std::ofstream(file, std::ios::binary) << bytes; }
};

TEST_F(SettingsFileBoundsTest, FilesBeyondTheBoundsAreKeptAsideAndGiveDefaults) {
    const std::string oversized =
        std::string(kXMLHeader) + "<dict><key>diagnosticsReport" + "</key><string>" +
        std::string(PropertyListFileDefaults::kLargestFile, 'x') + "</string></dict></plist>\n";
    struct Case {
        const char* name;
        std::string bytes;
        const char* reason;
    };
    const std::vector<Case> cases = {
        {"XML nested 50,000 deep", nestedXML(50'000), "nest deeper than 64 levels"},
        {"XML one level past the bound", nestedXML(kDeepest + 1), "nest deeper than 64 levels"},
        {"binary nested 200,000 deep", nestedBinary(200'000), "nest deeper than 64 levels"},
        {"binary one level past the bound", nestedBinary(kDeepest + 1),
         "nest deeper than 64 levels"},
        // 2^16 + 1 elements from a file of three hundred bytes.
        {"binary references expanding past the element bound", nestedBinary(17, 2),
         "more than 65536 values"},
        {"larger than 4 MiB", oversized, "larger than 4 MiB"},
    };
    for (const Case& bad : cases) {
        SCOPED_TRACE(bad.name);
        std::filesystem::remove_all(folder.path());
        std::filesystem::create_directories(folder.path());
        write(bad.bytes);
        PropertyListFileDefaults defaults(file);
        EXPECT_TRUE(defaults.values().empty());
        EXPECT_EQ(AppSettings::load(defaults), AppSettings{});
        ASSERT_TRUE(defaults.setAsideFile());
        EXPECT_NE(defaults.setAsideReason().find(bad.reason), std::string::npos)
            << defaults.setAsideReason();
        EXPECT_EQ(readFile(*defaults.setAsideFile()), bad.bytes) << "kept whole";
        EXPECT_FALSE(std::filesystem::exists(file));
        // Setting the file aside is the one thing said (the app prints it), and saving works.
        EXPECT_FALSE(defaults.writeError());
        defaults.set("volume", PropertyList::real(0.4));
        EXPECT_FALSE(defaults.writeError());
        EXPECT_EQ(PropertyListFileDefaults(file).get("volume"), PropertyList::real(0.4));
    }
}

TEST_F(SettingsFileBoundsTest, FilesAtTheBoundsLoad) {
    write(nestedXML(kDeepest));
    EXPECT_EQ(PropertyListFileDefaults(file).values(),
              (PropertyList::Dictionary{{"volume", PropertyList::real(0.2)},
                                        {"deep", nestedValue(kDeepest)}}));

    write(nestedBinary(kDeepest));
    EXPECT_EQ(PropertyListFileDefaults(file).get("deep"), nestedValue(kDeepest));

    // A shared array is read once per reference: 2^15 + 1 elements in all, 2^14 copies of the
    // innermost array.
    write(nestedBinary(16, 2));
    const std::optional<PropertyList> shared = PropertyListFileDefaults(file).get("deep");
    ASSERT_TRUE(shared);
    const PropertyList* innermost = &*shared;
    for (int level = 2; level < 16; ++level) {
        ASSERT_EQ(innermost->asArray()->size(), 2u);
        innermost = &innermost->asArray()->back();
    }
    EXPECT_EQ(*innermost, PropertyList::array());

    // Exactly as large as a settings file may be, white space after the root included.
    std::string largest =
        std::string(kXMLHeader) + "<dict><key>volume</key><real>0.3</real></dict></plist>\n";
    largest.resize(PropertyListFileDefaults::kLargestFile, '\n');
    write(largest);
    PropertyListFileDefaults defaults(file);
    EXPECT_EQ(AppSettings::load(defaults).volume, 0.3);
    EXPECT_FALSE(defaults.setAsideFile());
}

// libplist aborts on an assertion when text holding U+0000 is asked for through its copying
// getters. A string value is read without them, and ends there; a dictionary key can only be
// read through them, so a file whose key holds it (only UTF-16 keys of the binary form can)
// is kept aside.
TEST_F(SettingsFileBoundsTest, TextHoldingU0000NeverEndsTheProgram) {
    const std::string utf16WithZero("\x62\0a\0\0", 5); // "a" and U+0000
    write(std::string(kXMLHeader) + "<dict><key>note</key><string>a" + std::string(1, '\0') +
          "b</string></dict></plist>");
    EXPECT_EQ(PropertyListFileDefaults(file).get("note"), PropertyList("a"));
    write(binaryList({"\xD1" + reference(1) + reference(2), "\x54note", utf16WithZero}));
    EXPECT_EQ(PropertyListFileDefaults(file).get("note"), PropertyList("a"));

    const std::string zeroInKey =
        binaryList({"\xD1" + reference(1) + reference(2), utf16WithZero, "\x09"});
    write(zeroInKey);
    PropertyListFileDefaults defaults(file);
    EXPECT_TRUE(defaults.values().empty());
    ASSERT_TRUE(defaults.setAsideFile());
    EXPECT_EQ(readFile(*defaults.setAsideFile()), zeroInKey);
}

// libplist skips what comments, CDATA sections, processing instructions and quoted attribute
// values hold; a scan that counted the closing tags inside them would see a shallow file.
TEST(PropertyListBounds, NestingHiddenFromANaiveScanIsStillCounted) {
    const std::vector<std::pair<const char*, std::string>> hiding = {
        {"comment", "<!-- " + repeated("</array>", 40) + " -->"},
        {"CDATA in a string",
         "<string><![CDATA[" + repeated("</array>", 40) + "]]><!-- </string> --></string>"},
        {"processing instruction", "<?pi \"?>\" " + repeated("</array>", 40) + "?>"},
        {"quoted attribute", "<array a=\">" + repeated("</array>", 40) + "\"/>"},
        {"DOCTYPE subset", "<!DOCTYPE x [ \"]>\" " + repeated("</array>", 40) + " ]>"},
    };
    for (const auto& [name, hider] : hiding) {
        SCOPED_TRACE(name);
        // The hider sits 40 levels down; the value goes on to `levels` in all.
        const auto file = [&](int levels) {
            return std::string(kXMLHeader) + "<dict><key>deep</key>" + repeated("<array>", 39) +
                   hider + repeated("<array>", levels - 40) + repeated("</array>", levels - 1) +
                   "</dict></plist>";
        };
        EXPECT_EQ(measurePropertyListBytes(file(kDeepest + 1)), PropertyListBytes::tooDeep);
        EXPECT_EQ(measurePropertyListBytes(file(kDeepest)), PropertyListBytes::withinBounds);
        // libplist agrees: it reads the file at the bound, and reads it that deep.
        std::string reason;
        const auto values = PropertyListFileDefaults::parse(file(kDeepest), reason);
        ASSERT_TRUE(values) << reason;
        const PropertyList* deepest = &values->at("deep");
        int level = 2;
        while (deepest->asArray() != nullptr && !deepest->asArray()->empty()) {
            deepest = &deepest->asArray()->back();
            ++level;
        }
        EXPECT_EQ(level, kDeepest);
    }
}

TEST(PropertyListBounds, BinaryReferencesAreFollowedAsLibplistFollowsThem) {
    // An array holding itself: libplist refuses the loop, and so does the scan.
    const std::string loop = binaryList({"\xA1" + reference(0)});
    EXPECT_EQ(measurePropertyListBytes(loop), PropertyListBytes::malformed);
    // References past the object table, and a table past the end of the file.
    EXPECT_EQ(measurePropertyListBytes(binaryList({"\xA1" + reference(7)})),
              PropertyListBytes::malformed);
    std::string truncated = nestedBinary(3);
    truncated[truncated.size() - 1] = '\x7F';
    EXPECT_EQ(measurePropertyListBytes(truncated), PropertyListBytes::malformed);
    EXPECT_FALSE(PropertyListFileDefaults::parse(truncated));
    // A count too large for its bytes.
    EXPECT_EQ(measurePropertyListBytes(binaryList({"\xAF\x13" + std::string(8, '\xFF')})),
              PropertyListBytes::malformed);
}

} // namespace
} // namespace brightmix
