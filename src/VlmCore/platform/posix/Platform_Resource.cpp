#include "../Platform_Resource.h"

#include "../Platform_SystemError.h"
#include "Posix_ResourceFile.h"

#include <algorithm>
#include <cstring>

#include <vlmcore/impl/Core_Vector.h>

#include <elf.h>
#include <link.h>

namespace Velmor::Platform {

// ---- compiled resource files ----

char16_t SResourceLabel::GetUnit(u64 index) const
{
    return static_cast<char16_t>(units[index * 2] | units[index * 2 + 1] << 8);
}

CResourceFileReader::CResourceFileReader(void const* data, u64 size)
    : m_data(static_cast<u8 const*>(data)), m_size(size)
{
}

u16 CResourceFileReader::ReadNumber16(u64 offset) const
{
    return static_cast<u16>(m_data[offset] | m_data[offset + 1] << 8);
}

u32 CResourceFileReader::ReadNumber32(u64 offset) const
{
    return ReadNumber16(offset) | static_cast<u32>(ReadNumber16(offset + 2)) << 16;
}

bool CResourceFileReader::ReadLabel(u64& offset, u64 end, SResourceLabel& label) const
{
    label = {};
    if (end - offset < 4)
        return false;
    if (ReadNumber16(offset) == 0xFFFF) {
        label.number = ReadNumber16(offset + 2);
        offset += 4;
        return true;
    }
    label.units = m_data + offset;
    for (; end - offset >= 2; ++label.unitCount) {
        offset += 2;
        if (ReadNumber16(offset - 2) == 0)
            return true;
    }
    return false;
}

bool CResourceFileReader::Next(SResourceEntry& entry)
{
    constexpr u64 SizesBytes = 8;
    constexpr u64 TrailerBytes = 16;
    auto const aligned = [](u64 offset) { return (offset + 3) & ~u64{3}; };
    while (m_offset < m_size && m_size - m_offset >= SizesBytes) {
        u64 const start = m_offset;
        u32 const dataBytes = ReadNumber32(start);
        u32 const headerBytes = ReadNumber32(start + 4);
        if (headerBytes < SizesBytes + 8 + TrailerBytes || headerBytes > m_size - start ||
            dataBytes > m_size - start - headerBytes)
            break;
        u64 const headerEnd = start + headerBytes;
        u64 offset = start + SizesBytes;
        if (!ReadLabel(offset, headerEnd, entry.type) || !ReadLabel(offset, headerEnd, entry.name))
            break;
        offset = aligned(offset);
        if (offset > headerEnd || headerEnd - offset < TrailerBytes)
            break;
        entry.header = m_data + start;
        entry.language = ReadNumber16(offset + 6);
        entry.data = m_data + headerEnd;
        entry.size = dataBytes;
        m_offset = aligned(headerEnd + dataBytes);
        bool const isMarker = entry.type.units == nullptr && entry.type.number == 0;
        if (!isMarker)
            return true;
    }
    m_offset = m_size;
    return false;
}

// ---- the executable's files ----

namespace {

constexpr char NoteName[] = "VlmCore";
constexpr u32 NoteType = 0x564C4D52;

// What the build puts into the note: where the file lies, relative to this field, and its size.
struct SNoteContent {
    i64 distance;
    u64 size;
};

using FilesOfProgram = TVector<CResourceFileReader, 1>;

void CollectNotes(u8 const* notes, u64 size, u64 alignment, FilesOfProgram& files)
{
    auto const aligned = [alignment](u64 bytes) { return (bytes + alignment - 1) & ~(alignment - 1); };
    while (size >= sizeof(ElfW(Nhdr))) {
        ElfW(Nhdr) header;
        std::memcpy(&header, notes, sizeof header);
        u64 const nameOffset = sizeof header;
        u64 const contentOffset = nameOffset + aligned(header.n_namesz);
        u64 const end = contentOffset + aligned(header.n_descsz);
        if (end > size)
            return;
        SNoteContent content;
        if (header.n_type == NoteType && header.n_namesz == sizeof NoteName && header.n_descsz == sizeof content &&
            std::memcmp(notes + nameOffset, NoteName, sizeof NoteName) == 0) {
            std::memcpy(&content, notes + contentOffset, sizeof content);
            files.Append(CResourceFileReader(notes + contentOffset + content.distance, content.size));
        }
        notes += end;
        size -= end;
    }
}

// Where the loader put the program. It stays there as long as the process.
struct SProgram {
    u64 base = 0;
    ElfW(Phdr) const* segments = nullptr;
    u64 segmentCount = 0;
};

// The loader names the program itself first; the walk ends there: libraries' resources are not the executable's. The
// loader's lock is held: nothing is allocated here, since what a lack of memory throws would leave the lock behind.
int OnModule(dl_phdr_info* module, std::size_t, void* context)
{
    *static_cast<SProgram*>(context) = {module->dlpi_addr, module->dlpi_phdr, module->dlpi_phnum};
    return 1;
}

FilesOfProgram GetFilesOfProgram()
{
    SProgram program;
    ::dl_iterate_phdr(&OnModule, &program);
    FilesOfProgram files;
    for (u64 index = 0; index < program.segmentCount; ++index) {
        ElfW(Phdr) const& segment = program.segments[index];
        if (segment.p_type == PT_NOTE)
            CollectNotes(reinterpret_cast<u8 const*>(program.base + segment.p_vaddr), segment.p_memsz,
                         segment.p_align == 8 ? 8 : 4, files);
    }
    return files;
}

// ---- search ----

// As far as resource names go; the compilers store them in upper case.
char16_t ToUpper(char16_t unit)
{
    bool const isLower = (unit >= u'a' && unit <= u'z') || (unit >= 0xE0 && unit <= 0xFE && unit != 0xF7);
    return isLower ? static_cast<char16_t>(unit - 0x20) : unit;
}

// "#" and a decimal number stand for that number.
bool ParseNumberName(char16_t const* name, u16& number)
{
    if (name[0] != u'#' || name[1] == 0)
        return false;
    u32 value = 0;
    for (++name; *name >= u'0' && *name <= u'9' && value <= 0xFFFF; ++name)
        value = value * 10 + (*name - u'0');
    number = static_cast<u16>(value);
    return *name == 0 && value <= 0xFFFF;
}

bool IsSameLabel(SResourceLabel const& label, char16_t const* name)
{
    if (label.units == nullptr)
        return false;
    u64 index = 0;
    while (index < label.unitCount && ToUpper(label.GetUnit(index)) == ToUpper(name[index]))
        ++index;
    return index == label.unitCount && name[index] == 0;
}

bool IsOfType(SResourceEntry const& entry, SResourceType const& type)
{
    return type.name != nullptr ? IsSameLabel(entry.type, type.name)
                                : entry.type.units == nullptr && entry.type.number == type.number;
}

// The neutral language before American English before any other, and the first of equals.
u32 LanguageRank(u16 language)
{
    constexpr u16 AmericanEnglish = 0x409;
    return language == 0 ? 0 : language == AmericanEnglish ? 1 : 2;
}

} // namespace

// The mark is the entry's header, which begins with the two sizes.
ResourceMark LocateResource(SResourceType const& type, u16 id)
{
    SResourceType wanted = type;
    if (type.name != nullptr && ParseNumberName(type.name, wanted.number))
        wanted.name = nullptr;
    ResourceMark best = nullptr;
    u32 bestRank = ~u32{0};
    for (CResourceFileReader& file : GetFilesOfProgram()) {
        for (SResourceEntry entry; file.Next(entry);) {
            if (!IsOfType(entry, wanted) || entry.name.units != nullptr || entry.name.number != id ||
                LanguageRank(entry.language) >= bestRank)
                continue;
            best = entry.header;
            bestRank = LanguageRank(entry.language);
        }
    }
    return best;
}

u32 AccessResource(ResourceMark mark, void const*& data, u32& size)
{
    u8 const* const header = static_cast<u8 const*>(mark);
    u32 headerBytes;
    std::memcpy(&size, header, sizeof size);
    std::memcpy(&headerBytes, header + sizeof size, sizeof headerBytes);
    data = header + headerBytes;
    return ESystemError::None;
}

// ---- enumeration ----

namespace {

// Named types by their units, before numbers; then by id.
bool IsBefore(SResourceEntry const& left, SResourceEntry const& right)
{
    bool const leftIsNamed = left.type.units != nullptr;
    bool const rightIsNamed = right.type.units != nullptr;
    if (leftIsNamed != rightIsNamed)
        return leftIsNamed;
    u64 const common = std::min(left.type.unitCount, right.type.unitCount);
    for (u64 index = 0; index < common; ++index)
        if (left.type.GetUnit(index) != right.type.GetUnit(index))
            return left.type.GetUnit(index) < right.type.GetUnit(index);
    if (left.type.unitCount != right.type.unitCount)
        return left.type.unitCount < right.type.unitCount;
    if (left.type.number != right.type.number)
        return left.type.number < right.type.number;
    return left.name.number < right.name.number;
}

} // namespace

void VisitResources(VisitResource visit, void* context)
{
    TVector<SResourceEntry, 1> entries;
    for (CResourceFileReader& file : GetFilesOfProgram())
        for (SResourceEntry entry; file.Next(entry);)
            if (entry.name.units == nullptr)
                entries.Append(entry);
    std::sort(entries.begin(), entries.end(), IsBefore);
    TVector<char16_t, 1> name;
    for (u64 index = 0; index < entries.GetCount(); ++index) {
        SResourceEntry const& entry = entries[index];
        if (index != 0 && !IsBefore(entries[index - 1], entry))
            continue; // the same in another language
        name.Clear();
        for (u64 unit = 0; unit < entry.type.unitCount; ++unit)
            name.Append(entry.type.GetUnit(unit));
        name.Append(u'\0');
        visit(context, SResourceType{entry.type.number, entry.type.units != nullptr ? name.GetData() : nullptr},
              entry.name.number);
    }
}

} // namespace Velmor::Platform
