#include "TextFile.h"

#include <cstring>

using namespace Velmor;

namespace {

// The longer marks first: the mark of UTF-32LE begins with that of UTF-16LE.
constexpr SFileEncoding Encodings[] = {
    {"UTF-32LE", EStringEncoding::UTF32, 4, false, 4, {0xFF, 0xFE, 0x00, 0x00}},
    {"UTF-32BE", EStringEncoding::UTF32, 4, true, 4, {0x00, 0x00, 0xFE, 0xFF}},
    {"UTF-8", EStringEncoding::UTF8, 1, false, 3, {0xEF, 0xBB, 0xBF}},
    {"UTF-16LE", EStringEncoding::UTF16, 2, false, 2, {0xFF, 0xFE}},
    {"UTF-16BE", EStringEncoding::UTF16, 2, true, 2, {0xFE, 0xFF}},
};
constexpr SFileEncoding Unmarked = {"UTF-8", EStringEncoding::UTF8, 1, false, 0, {}};

SFileEncoding const& DetectEncoding(u8 const* data, u64 size)
{
    for (SFileEncoding const& encoding : Encodings) {
        if (size >= encoding.markSize && std::memcmp(data, encoding.mark, encoding.markSize) == 0)
            return encoding;
    }
    return Unmarked;
}

void SwapBytes(u8* data, u64 size, u64 unitSize)
{
    for (u64 offset = 0; offset + unitSize <= size; offset += unitSize) {
        for (u64 low = 0, high = unitSize - 1; low < high; ++low, --high)
            std::swap(data[offset + low], data[offset + high]);
    }
}

u64 MeasureUTF16Character(u8 const* text, u64 size)
{
    auto const getUnit = [text](u64 offset) { return static_cast<u32>(text[offset] | text[offset + 1] << 8); };
    if (size < 2 || getUnit(0) == 0)
        return 0;
    if ((getUnit(0) & 0xF800) != 0xD800)
        return 2;
    bool const isPair = getUnit(0) < 0xDC00 && size >= 4 && (getUnit(2) & 0xFC00) == 0xDC00;
    return isPair ? 4 : 0;
}

u64 MeasureUTF32Character(u8 const* text, u64 size)
{
    u32 unit = 0;
    if (size < sizeof unit)
        return 0;
    std::memcpy(&unit, text, sizeof unit);
    return unit != 0 && unit <= 0x10FFFF && (unit & 0xFFFFF800) != 0xD800 ? 4 : 0;
}

} // namespace

u64 MeasureUTF8Character(u8 const* text, u64 size)
{
    u8 const lead = text[0];
    u64 const length = lead < 0x80 ? 1 : lead < 0xC2 ? 0 : lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : lead < 0xF5 ? 4 : 0;
    if (lead == 0 || length == 0 || length > size)
        return 0;
    for (u64 index = 1; index < length; ++index) {
        if ((text[index] & 0xC0) != 0x80)
            return 0;
    }
    bool const isOverlong = (lead == 0xE0 && text[1] < 0xA0) || (lead == 0xF0 && text[1] < 0x90);
    bool const isSurrogate = lead == 0xED && text[1] >= 0xA0;
    bool const isTooLarge = lead == 0xF4 && text[1] >= 0x90;
    return isOverlong || isSurrogate || isTooLarge ? 0 : length;
}

CTextFile::CTextFile(IFile& file, SFileReport& report)
{
    u64 const expected = file.GetSizeByte();
    m_bytes.Resize(expected + sizeof(char32_t));
    while (m_size < expected) {
        u64 const got = file.Read(m_bytes.GetData() + m_size, expected - m_size);
        if (got == 0)
            break; // the file shrank meanwhile: what was read is what there is
        m_size += got;
    }
    std::memset(m_bytes.GetData() + m_size, 0, sizeof(char32_t));

    report.bytes = m_size;
    report.crc32 = ~GetCRC32(m_bytes.GetData(), m_size, 0xFFFFFFFF);
    report.fnv64 = GetFNV64(m_bytes.GetData(), m_size, 0, 0xCBF29CE484222325);

    m_encoding = &DetectEncoding(m_bytes.GetData(), m_size);
    report.encoding = m_encoding->name;
    report.hasMark = m_encoding->markSize != 0;
    if (m_encoding->isBigEndian)
        SwapBytes(GetTextBytes(), m_size - m_encoding->markSize, m_encoding->unitSize);
}

// The library itself never rejects text; a program that is handed any file has to.
u64 CTextFile::FindMalformed() const
{
    auto const measure = m_encoding->type == EStringEncoding::UTF8    ? &MeasureUTF8Character
                         : m_encoding->type == EStringEncoding::UTF16 ? &MeasureUTF16Character
                                                                      : &MeasureUTF32Character;
    u64 offset = m_encoding->markSize;
    while (offset < m_size) {
        u64 const length = measure(m_bytes.GetData() + offset, m_size - offset);
        if (length == 0)
            break;
        offset += length;
    }
    return offset;
}

CString CTextFile::GetText() const
{
    return CString(m_bytes.GetData() + m_encoding->markSize, m_encoding->type);
}

void CTextFile::WriteLike(IFile& file, CMutableString text) const
{
    auto* const data = static_cast<u8*>(const_cast<void*>(text.GetData())); // the text is ours
    u64 const size = text.IsEmpty() ? 0 : text.GetAllocatedSize() - m_encoding->unitSize;
    if (m_encoding->isBigEndian)
        SwapBytes(data, size, m_encoding->unitSize);
    u64 const written = file.Write(m_encoding->mark, m_encoding->markSize) + file.Write(data, size);
    if (written != m_encoding->markSize + size)
        throw CFileException("The disk took only a part of the file.", EFileError::Unknown);
}
