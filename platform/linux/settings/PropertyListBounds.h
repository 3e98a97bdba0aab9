// How far a property list's bytes nest and how many elements they hold, measured before
// libplist sees them. libplist (2.2) builds an XML tree without recursing, but frees every tree
// and parses the binary form recursively, one call per level, and copies an object each time
// a binary file refers to it; a hostile or damaged file could therefore exhaust the stack, or
// expand a few kilobytes into millions of nodes, inside the library, where nothing can catch
// it. The scan walks the bytes the way libplist 2.2 reads them (its tokens for XML; the
// trailer, offset table and object references for the binary form), with memory and time in
// proportion to the input and recursion no deeper than the nesting bound.
//
// Whatever libplist would accept, the scan measures exactly; what it cannot read the way
// libplist does it calls malformed, so that nothing it cannot measure reaches the library.
//
// Thread: any (pure). Realtime-safe: no.
#pragma once

#include <cstdint>
#include <string_view>

namespace brightmix {

enum class PropertyListBytes {
    withinBounds, // nests and expands no further than the bounds (it may still be unreadable)
    tooDeep,      // containers nest deeper than PropertyList::kDeepestNesting
    tooMany,      // more than kMostPropertyListElements elements once references are expanded
    malformed,    // not something libplist would read as a property list
};

// Every element counts, containers and dictionary keys included. A real settings file holds a
// few hundred (one per setting, per output and member, per diagnostics line; the labels and
// rules are one element each), so this leaves a margin of a hundred times; beyond it, reading
// would only cost memory.
inline constexpr std::uint64_t kMostPropertyListElements = std::uint64_t{1} << 16;

// Measures XML or binary ("bplist00") bytes, as plist_from_memory would choose between them.
PropertyListBytes measurePropertyListBytes(std::string_view bytes);

} // namespace brightmix
