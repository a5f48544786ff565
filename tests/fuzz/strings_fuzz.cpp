// Every string operation on arbitrary texts of all encodings against the plain rules, in buffers without a spare byte.
#include "Core_TextKernels.h"
#include "FuzzSupport.h"

#include <vlmcore/strings.h>

#include "support/PlainText.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <vector>

using namespace Velmor;
using namespace Velmor::Test;

namespace {

using CCodes = std::vector<u32>;

CCodes Slice(CCodes const& codes, u64 from, u64 to)
{
    u64 const size = codes.size();
    from = std::min(from, size);
    to = std::clamp(to, from, size);
    return CCodes(codes.begin() + static_cast<std::ptrdiff_t>(from), codes.begin() + static_cast<std::ptrdiff_t>(to));
}

bool MatchesAt(CCodes const& codes, CCodes const& needle, u64 place)
{
    return place + needle.size() <= codes.size() &&
           std::equal(needle.begin(), needle.end(), codes.begin() + static_cast<std::ptrdiff_t>(place));
}

u64 FindFirst(CCodes const& codes, CCodes const& needle, u64 start)
{
    for (u64 place = start; !needle.empty() && place < codes.size(); ++place) {
        if (MatchesAt(codes, needle, place))
            return place;
    }
    return IString::NotFound;
}

/// Ends of the occurrences that the simple restart finds.
std::vector<u64> SimpleMatches(CCodes const& codes, CCodes const& needle, u64 start)
{
    std::vector<u64> ends;
    u64 matched = 0;
    for (u64 place = start; !needle.empty() && place < codes.size(); ++place) {
        matched = codes[place] == needle[matched] ? matched + 1 : 0;
        if (matched == needle.size()) {
            ends.push_back(place + 1);
            matched = 0;
        }
    }
    return ends;
}

void CheckMeasures(CString const& text, SPlainText const& plain)
{
    u64 const length = plain.GetLength();
    Check(text.GetLength() == length, "GetLength");
    Check(text.GetAllocatedSize() == plain.offsets.back() + Encodings::GetUnitSize(text.GetEncoding()),
          "GetAllocatedSize");
    Check(text.IsEmpty() == (length == 0), "IsEmpty");
    CGenericStringIterator position = text.GetIterator();
    for (u64 index = 0; index <= length; ++index) {
        Check(text.GetByteOffset(index) == plain.offsets[index], "GetByteOffset");
        u32 const expected = index < length ? plain.codePoints[index] : 0;
        Check(text.GetCodePointAt(index) == expected, "GetCodePointAt");
        Check(*position == expected && position.GetByteOffset() == plain.offsets[index], "iterator");
        ++position;
    }
    Check(text.GetByteOffset(length + 7) == plain.offsets.back(), "GetByteOffset past the end");
}

void CheckConversions(CString const& text, SPlainText const& plain)
{
    for (auto const target : {EStringEncoding::UTF8, EStringEncoding::UTF16, EStringEncoding::UTF32}) {
        std::vector<u8> expected;
        if (target == text.GetEncoding()) {
            u8 const* const own = static_cast<u8 const*>(text.GetData());
            expected.assign(own, own + text.GetAllocatedSize());
        }
        else {
            expected = Write(plain.codePoints, target);
        }
        Check(text.GetAllocatedSizeAs(target) == expected.size(), "GetAllocatedSizeAs");
        std::unique_ptr<u8[]> const out(new u8[expected.size()]);
        text.CopyAs(target, out.get(), false);
        Check(std::equal(expected.begin(), expected.end(), out.get()), "CopyAs");
    }
    Check(text.ToUTF8() == CString(Write(plain.codePoints, EStringEncoding::UTF8).data(), EStringEncoding::UTF8) ||
              text.GetEncoding() == EStringEncoding::UTF8,
          "ToUTF8");
}

void CheckComparison(CString const& left, SPlainText const& leftPlain, CString const& right,
                     SPlainText const& rightPlain)
{
    int order = 0;
    if (left.GetEncoding() != right.GetEncoding()) {
        order = leftPlain.codePoints < rightPlain.codePoints   ? -1
                : leftPlain.codePoints > rightPlain.codePoints ? 1
                                                               : 0;
    }
    else {
        u64 const unitSize = Encodings::GetUnitSize(left.GetEncoding());
        auto const units = [unitSize](CString const& text) {
            CCodes values;
            for (u64 offset = 0; offset + unitSize < text.GetAllocatedSize(); offset += unitSize) {
                u32 unit = 0;
                std::memcpy(&unit, static_cast<u8 const*>(text.GetData()) + offset, unitSize);
                values.push_back(unit);
            }
            return values;
        };
        CCodes const leftUnits = units(left);
        CCodes const rightUnits = units(right);
        order = leftUnits < rightUnits ? -1 : leftUnits > rightUnits ? 1 : 0;
    }
    Check((left == right) == (order == 0), "==");
    Check((left != right) == (order != 0), "!=");
    Check((left < right) == (order < 0), "<");
    Check((left > right) == (order > 0), ">");
    if (order == 0)
        Check(left.GetTextHash() == right.GetTextHash(), "GetTextHash");
    if (left.GetEncoding() != right.GetEncoding()) {
        Check(left.StartsWith(right) == MatchesAt(leftPlain.codePoints, rightPlain.codePoints, 0), "StartsWith");
        bool const longEnough = leftPlain.GetLength() >= rightPlain.GetLength();
        Check(left.EndsWith(right) == (longEnough && MatchesAt(leftPlain.codePoints, rightPlain.codePoints,
                                                               leftPlain.GetLength() - rightPlain.GetLength())),
              "EndsWith");
    }
}

void CheckSearch(CString const& text, SPlainText const& plain, CString const& needle, SPlainText const& needlePlain,
                 u64 start)
{
    CCodes const& codes = plain.codePoints;
    CCodes const& wanted = needlePlain.codePoints;
    Check(text.Find(needle, start) == FindFirst(codes, wanted, start), "Find");
    u64 last = IString::NotFound;
    for (u64 place = start; place < codes.size(); ++place) {
        if (!wanted.empty() && MatchesAt(codes, wanted, place))
            last = place;
    }
    Check(text.FindLast(needle, start) == last, "FindLast");
    if (!wanted.empty()) {
        u32 const codePoint = wanted[0];
        u64 first = IString::NotFound;
        for (u64 place = start; first == IString::NotFound && !codes.empty() && place <= codes.size(); ++place) {
            if ((place < codes.size() ? codes[place] : 0) == codePoint)
                first = place;
        }
        Check(text.Find(codePoint, start) == first, "Find code point");
    }
    std::vector<u64> const ends = SimpleMatches(codes, wanted, start);
    Check(text.Count(needle, start) == ends.size(), "Count");

    TVector<CMutableString, 1> pieces;
    text.Split(needle, pieces, start);
    std::vector<std::pair<u64, u64>> expected;
    u64 from = 0;
    for (u64 const end : ends) {
        if (end - wanted.size() != from)
            expected.emplace_back(from, end - wanted.size());
        from = end;
    }
    if (from != codes.size() || ends.empty())
        expected.emplace_back(from, codes.size());
    Check(pieces.GetCount() == expected.size(), "Split count");
    for (u64 index = 0; index < expected.size(); ++index)
        Check(Read(CString(pieces[index])).codePoints == Slice(codes, expected[index].first, expected[index].second),
              "Split piece");
}

/// The bytes of some of a text's own characters.
std::vector<u8> Own(CString const& text, SPlainText const& plain, u64 from, u64 to)
{
    u8 const* const bytes = static_cast<u8 const*>(text.GetData());
    return std::vector<u8>(bytes + plain.offsets[from], bytes + plain.offsets[to]);
}

bool HasBytes(CMutableString const& text, std::vector<u8> bytes)
{
    bytes.resize(bytes.size() + Encodings::GetUnitSize(text.GetEncoding()));
    // What follows a zero unit is no text any more.
    u64 const size = text.GetAllocatedSize();
    return size <= bytes.size() && std::equal(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(size),
                                              static_cast<u8 const*>(text.GetData()));
}

void CheckEditing(CString const& text, SPlainText const& plain, CString const& needle, SPlainText const& needlePlain,
                  CString const& with, u64 start, u64 end)
{
    u64 const length = plain.GetLength();
    u64 const from = std::min(start, length);
    u64 const to = std::clamp(end, from, length);
    Check(HasBytes(text.GetSubstring(start, end), Own(text, plain, from, start < end ? to : from)), "GetSubstring");

    std::vector<u8> withBytes = Write(Read(with).codePoints, text.GetEncoding());
    if (with.GetEncoding() == text.GetEncoding())
        withBytes.assign(static_cast<u8 const*>(with.GetData()),
                         static_cast<u8 const*>(with.GetData()) + with.GetAllocatedSize());
    withBytes.resize(withBytes.size() - Encodings::GetUnitSize(text.GetEncoding()));
    std::vector<u8> replaced;
    u64 place = 0;
    for (;;) {
        u64 const match = FindFirst(plain.codePoints, needlePlain.codePoints, std::max(place, start));
        u64 const stop = match == IString::NotFound ? length : match;
        std::vector<u8> const gap = Own(text, plain, place, stop);
        replaced.insert(replaced.end(), gap.begin(), gap.end());
        if (match == IString::NotFound)
            break;
        replaced.insert(replaced.end(), withBytes.begin(), withBytes.end());
        place = match + needlePlain.GetLength();
    }
    Check(HasBytes(text.Replace(needle, with, start), replaced), "Replace");

    u32 const escape = needlePlain.GetLength() != 0 ? needlePlain.codePoints[0] : 0x5C;
    std::vector<u8> unescaped;
    bool isProtected = false;
    for (u64 index = 0; index < length; ++index) {
        bool const inRange = index >= start && index < end;
        if (!isProtected && inRange && plain.codePoints[index] == escape) {
            isProtected = true;
            continue;
        }
        isProtected = false;
        std::vector<u8> const character = Own(text, plain, index, index + 1);
        unescaped.insert(unescaped.end(), character.begin(), character.end());
    }
    Check(HasBytes(text.Unescape(escape, start, end), unescaped), "Unescape");

    std::vector<u8> appended = Own(text, plain, 0, length);
    appended.insert(appended.end(), withBytes.begin(), withBytes.end());
    Check(HasBytes(text.Append(with), appended), "Append");
    CMutableString chained = text + with;
    Check(HasBytes(chained, appended), "chain");
    (void)text.CopyToLowercaseASCII();
    (void)text.CopyToUppercaseASCII();
}

void CheckDistance(CString const& left, SPlainText const& leftPlain, CString const& right, SPlainText const& rightPlain)
{
    u64 const distance = left.GetDistance(right);
    if (left.GetEncoding() != right.GetEncoding())
        return;
    std::vector<u64> row(rightPlain.GetLength() + 1);
    for (u64 index = 0; index < row.size(); ++index)
        row[index] = index;
    for (u64 outer = 0; outer < leftPlain.GetLength(); ++outer) {
        std::vector<u64> next(row.size());
        next[0] = outer + 1;
        for (u64 inner = 1; inner < row.size(); ++inner) {
            u64 const change =
                row[inner - 1] + (leftPlain.codePoints[outer] == rightPlain.codePoints[inner - 1] ? 0 : 1);
            next[inner] = std::min({row[inner] + 1, next[inner - 1] + 1, change});
        }
        row.swap(next);
    }
    Check(distance == row.back(), "GetDistance");
}

void CheckInput(std::uint8_t const* data, std::size_t size)
{
    // Every set of kernels that this processor has, in turn with the inputs.
    TextKernels::Force(static_cast<TextKernels::ELevel>(data[3] / 24 % 4));
    auto const encoding = [](unsigned value) { return static_cast<EStringEncoding::Type>(value % 3); };
    u64 const start = data[1] % 40;
    u64 const end = data[2] == 255 ? IString::End : data[2] % 80;
    u64 const rest = size - 5;
    u64 const needleSize = std::min<u64>(data[3] % 24, rest);
    u64 const withSize = std::min<u64>(data[4] % 24, rest - needleSize);
    CExactText const needleText(data + 5, needleSize, encoding(data[0] / 3));
    CExactText const withText(data + 5 + needleSize, withSize, encoding(data[0] / 9));
    CExactText const mainText(data + 5 + needleSize + withSize, rest - needleSize - withSize, encoding(data[0]));
    CString const text = mainText.Get();
    CString const needle = needleText.Get();
    CString const with = withText.Get();
    SPlainText const plain = Read(text);
    SPlainText const needlePlain = Read(needle);

    CheckMeasures(text, plain);
    CheckConversions(text, plain);
    CheckComparison(text, plain, needle, needlePlain);
    CheckComparison(needle, needlePlain, with, Read(with));
    CheckSearch(text, plain, needle, needlePlain, start);
    CheckEditing(text, plain, needle, needlePlain, with, start, end);
    CheckDistance(text, plain, needle, needlePlain);
    (void)text.GetHash();
    (void)text.GetHash(start, end);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size)
{
    if (size < 5)
        return 0;
    PrepareHeap();
    u64 const liveBefore = CountLiveBlocks();
    CheckInput(data, size);
    Check(CountLiveBlocks() == liveBefore, "something was not freed");
    return 0;
}
