// Texts as lists of code points, by rules written down a second time and as plainly as possible: the oracle of the
// string operations.
#pragma once

#include <vlmcore/strings.h>

#include <cstring>
#include <vector>

namespace Velmor::Test {

/// A text taken apart: code points, and the byte offset of each and of the terminator.
struct SPlainText {
    std::vector<u32> codePoints;
    std::vector<u64> offsets;

    [[nodiscard]] u64 GetLength() const { return codePoints.size(); }
};

/// Reads terminated text of any encoding.
inline SPlainText Read(CString const& text)
{
    SPlainText plain;
    plain.offsets.push_back(0);
    if (text.GetData() == nullptr)
        return plain;
    u8 const* const bytes = static_cast<u8 const*>(text.GetData());
    u64 const unitSize = text.GetEncoding() == 0 ? 1 : text.GetEncoding() == 1 ? 2 : 4;
    std::vector<u32> units;
    for (u64 offset = 0;; offset += unitSize) {
        u32 unit = 0;
        std::memcpy(&unit, bytes + offset, unitSize);
        if (unit == 0)
            break;
        units.push_back(unit);
    }
    u64 at = 0;
    while (at < units.size()) {
        auto const unit = [&](u64 ahead) { return at + ahead < units.size() ? units[at + ahead] : 0; };
        u64 wanted = 1;
        u32 codePoint = unit(0);
        if (unitSize == 1 && codePoint >= 0x80) {
            u32 const lead = codePoint;
            if (lead < 0xC0)
                codePoint = 0;
            else if (lead < 0xE0) {
                wanted = 2;
                codePoint = lead % 32 * 64 + unit(1) % 64;
            }
            else if (lead < 0xF0) {
                wanted = 3;
                codePoint = lead % 16 * 4096 + unit(1) % 64 * 64 + unit(2) % 64;
            }
            else {
                wanted = 4;
                codePoint = lead % 16 * 262144 + unit(1) % 64 * 4096 + unit(2) % 64 * 64 + unit(3) % 64;
            }
        }
        else if (unitSize == 2 && codePoint >= 0xD800 && codePoint <= 0xDFFF) {
            wanted = 2;
            codePoint = codePoint % 2048 * 512;
            codePoint |= unit(1) % 1024;
        }
        at += wanted < units.size() - at ? wanted : units.size() - at;
        plain.codePoints.push_back(codePoint);
        plain.offsets.push_back(at * unitSize);
    }
    return plain;
}

/// The bytes of code points in an encoding, with a terminator.
inline std::vector<u8> Write(std::vector<u32> const& codePoints, EStringEncoding::Type encoding)
{
    std::vector<u8> bytes;
    auto const put = [&](u32 unit, u64 size) {
        for (u64 index = 0; index < size; ++index)
            bytes.push_back(static_cast<u8>(unit >> (8 * index)));
    };
    for (u32 const codePoint : codePoints) {
        if (encoding == EStringEncoding::UTF8) {
            if (codePoint < 0x80)
                put(codePoint, 1);
            else if (codePoint < 0x800) {
                put(0xC0 + codePoint / 64, 1);
                put(0x80 + codePoint % 64, 1);
            }
            else {
                if (codePoint >= 0x40000)
                    put(0xE0, 1);
                put(codePoint < 0x40000 ? 0xE0 + codePoint / 4096 % 16 : 0xE0 | (codePoint / 4096 % 256), 1);
                put(0x80 + codePoint / 64 % 64, 1);
                put(0x80 + codePoint % 64, 1);
            }
        }
        else if (encoding == EStringEncoding::UTF16) {
            if (codePoint < 0xFFFF)
                put(codePoint, 2);
            else {
                put(0xD800 | (codePoint >> 10), 2);
                put(0xDC00 | codePoint, 2);
            }
        }
        else {
            put(codePoint, 4);
        }
    }
    put(0, encoding == EStringEncoding::UTF8 ? 1 : encoding == EStringEncoding::UTF16 ? 2 : 4);
    return bytes;
}

} // namespace Velmor::Test
