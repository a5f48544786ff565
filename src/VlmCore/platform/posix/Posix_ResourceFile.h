/// \file
/// Compiled resource files (.res) in memory.
///
/// A file is a row of entries, each aligned to four bytes:
///
///     u32 bytes of data
///     u32 bytes of this header
///     type, name      each FFFF and a 16-bit number, or zero-terminated UTF-16
///     (to a multiple of four)
///     u32 data version, u16 memory flags, u16 language, u32 version, u32 characteristics
///     data
///
/// The first entry is empty and marks the file. Files come from the build, but are read as if they came from anywhere:
/// whatever does not fit ends the walk.
#pragma once

#include <vlmcore/types.h>

namespace Velmor::Platform {

/// A type or a name: a number, or units that end with a zero within the file.
struct SResourceLabel {
    u16 number = 0;
    u8 const* units = nullptr; ///< not aligned; null for a number
    u64 unitCount = 0;         ///< without the terminator

    [[nodiscard]] char16_t GetUnit(u64 index) const;
};

/// One resource.
struct SResourceEntry {
    SResourceLabel type;
    SResourceLabel name;
    u16 language = 0;
    u8 const* header = nullptr;
    u8 const* data = nullptr;
    u32 size = 0;
};

/// Walks the entries of a file.
class CResourceFileReader {
public:
    CResourceFileReader(void const* data, u64 size);

    /// The next entry that holds a resource; false at the end and at the first that does not fit.
    [[nodiscard]] bool Next(SResourceEntry& entry);

private:
    [[nodiscard]] bool ReadLabel(u64& offset, u64 end, SResourceLabel& label) const;
    [[nodiscard]] u16 ReadNumber16(u64 offset) const;
    [[nodiscard]] u32 ReadNumber32(u64 offset) const;

    u8 const* m_data;
    u64 m_size;
    u64 m_offset = 0;
};

} // namespace Velmor::Platform
