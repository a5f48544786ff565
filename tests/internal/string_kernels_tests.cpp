// Every set of text kernels gives the results of the plain rules: all string operations under each set in turn, on
// regular and malformed texts that end, and begin, where their memory does.
#include <gtest/gtest.h>

#include "Core_TextKernels.h"

#include <vlmcore/strings.h>

#include "TestHeap.h"
#include "support/GuardedPages.h"
#include "support/StringAccess.h"

#include <functional>
#include <random>
#include <string>
#include <vector>

using namespace Velmor;
using namespace Velmor::Test;
using TextKernels::ELevel;

namespace {

class CStringKernels : public ::testing::TestWithParam<ELevel> {
protected:
    void SetUp() override
    {
        if (!TextKernels::Force(GetParam()))
            GTEST_SKIP() << "this processor has not got these instructions";
    }
    void TearDown() override { TextKernels::Force(TextKernels::GetBestLevel()); }

    /// Calls `operation` under the plain rules and under the set of the test.
    template <class Operation>
    auto Both(Operation const& operation)
    {
        TextKernels::Force(ELevel::Plain);
        auto expected = operation();
        TextKernels::Force(GetParam());
        auto actual = operation();
        return std::make_pair(std::move(expected), std::move(actual));
    }

    CGuardedPages const m_text{16384};
    CGuardedPages const m_other{16384};
    CGuardedPages const m_out{65536};
};

/// Texts of one encoding with a given flavour of units.
std::vector<u8> MakeText(std::mt19937& random, EStringEncoding::Type encoding, unsigned flavour, u64 characters)
{
    std::vector<u32> codePoints;
    for (u64 index = 0; index < characters; ++index) {
        u32 const any = static_cast<u32>(random());
        switch (flavour) {
        case 0: // ASCII
            codePoints.push_back(0x20 + any % 0x5F);
            break;
        case 1: // mostly ASCII
            codePoints.push_back(any % 10 != 0 ? 0x20 + any / 16 % 0x5F : 0xA0 + any / 16 % 0x300);
            break;
        case 2: // two bytes
            codePoints.push_back(0x400 + any % 0x100);
            break;
        case 3: // three bytes
            codePoints.push_back(0x3000 + any % 0x6000);
            break;
        case 4: // everything up to the last unit
            codePoints.push_back(1 + any % 0xFFFF);
            break;
        case 5: // beyond
            codePoints.push_back(any % 3 == 0 ? 0x10000 + any / 4 % 0x100000 : 0x20 + any % 0x5F);
            break;
        default: // few different letters
            codePoints.push_back('a' + any % 3);
        }
    }
    std::vector<u8> bytes;
    for (u32 const codePoint : codePoints) {
        u8 buffer[8];
        u8* const end = Encodings::Dispatch(encoding, [&](auto rules) { return rules.Write(codePoint, buffer); });
        bytes.insert(bytes.end(), buffer, end);
    }
    // Standard four-byte characters and pairs, which the encoder does not write, and stray units.
    u64 const unitSize = Encodings::GetUnitSize(encoding);
    if (flavour >= 7) {
        for (u64 damage = 0; damage < 1 + characters / 20; ++damage) {
            u64 const place = random() % (bytes.size() / unitSize + 1);
            u32 const kinds8[] = {0x80, 0xBF, 0xC0, 0xC1,   0xC3,       0xE0,     0xE2,
                                  0xEF, 0xF0, 0xFF, 0x9FF0, 0x80989FF0, 0xBFBFEF, 0x8181E0};
            u32 const kinds16[] = {0xD800, 0xDBFF, 0xDC00, 0xDFFF, 0xFFFF, 0xDE00D83D};
            u32 const kinds32[] = {0xD800, 0xFFFF, 0x10000, 0x3FFFF, 0x40000, 0xFFFFFFFF, 0x80000041};
            u32 const kind = encoding == 0   ? kinds8[random() % std::size(kinds8)]
                             : encoding == 1 ? kinds16[random() % std::size(kinds16)]
                                             : kinds32[random() % std::size(kinds32)];
            for (u64 unit = 0; unit < 4 / unitSize; ++unit) {
                u32 value = 0;
                std::memcpy(&value, reinterpret_cast<u8 const*>(&kind) + unit * unitSize, unitSize);
                if (value != 0)
                    bytes.insert(bytes.begin() + static_cast<std::ptrdiff_t>(std::min<u64>(
                                                     (place + unit) * unitSize, bytes.size() / unitSize * unitSize)),
                                 reinterpret_cast<u8 const*>(&value), reinterpret_cast<u8 const*>(&value) + unitSize);
            }
        }
        // Some end in the middle of a character.
        if (random() % 3 == 0 && encoding == EStringEncoding::UTF8)
            bytes.push_back(static_cast<u8>(0xC0 + random() % 0x40));
        if (random() % 3 == 0 && encoding == EStringEncoding::UTF16) {
            bytes.push_back(0);
            bytes.push_back(0xD8);
        }
    }
    bytes.resize(bytes.size() + unitSize);
    return bytes;
}

constexpr unsigned Flavours = 10;
u64 const Lengths[] = {0,  1,  2,  7,  8,  15, 16,  17,  31,  32,  33,  47,  63,  64,
                       65, 66, 95, 96, 97, 98, 127, 128, 129, 160, 200, 255, 300, 700};

std::vector<u8> BytesOf(CMutableString const& text)
{
    u8 const* const data = static_cast<u8 const*>(text.GetData());
    return std::vector<u8>(data, data + text.GetAllocatedSize());
}

} // namespace

TEST_P(CStringKernels, MeasuresAndConversions)
{
    std::mt19937 random(7);
    for (EStringEncoding::Type const encoding : AllEncodings) {
        for (unsigned flavour = 0; flavour < Flavours; ++flavour) {
            for (u64 const length : Lengths) {
                std::vector<u8> const bytes = MakeText(random, encoding, flavour, length);
                CString const text(m_text.PlaceAtEnd(bytes.data(), bytes.size()), encoding);
                SCOPED_TRACE(testing::Message()
                             << "encoding " << encoding << " flavour " << flavour << " length " << length);
                auto const lengths = Both([&] { return text.GetLength(); });
                ASSERT_EQ(lengths.first, lengths.second);
                ASSERT_EQ(text.GetAllocatedSize(), bytes.size());
                for (EStringEncoding::Type const target : AllEncodings) {
                    auto const sizes = Both([&] { return text.GetAllocatedSizeAs(target); });
                    ASSERT_EQ(sizes.first, sizes.second) << "as " << target;
                    // Exactly as much room as announced, in front of memory that may not be touched.
                    auto const copies = Both([&] {
                        u8* const out = m_out.TakeTail(sizes.first);
                        std::memset(out, 0xCD, sizes.first);
                        text.CopyAs(target, out, false);
                        return std::vector<u8>(out, out + sizes.first);
                    });
                    ASSERT_EQ(copies.first, copies.second) << "as " << target;
                }
                // And at the front of its memory, where nothing may be read before it.
                std::memcpy(m_text.GetBegin(), bytes.data(), bytes.size());
                CString const front(m_text.GetBegin(), encoding);
                ASSERT_EQ(front.GetLength(), lengths.first);
                auto const converted = Both([&] { return BytesOf(front.ToUTF16()); });
                ASSERT_EQ(converted.first, converted.second);
                auto const narrow = Both([&] { return BytesOf(front.ToUTF8()); });
                ASSERT_EQ(narrow.first, narrow.second);
            }
        }
    }
}

TEST_P(CStringKernels, PlaneZeroUnits)
{
    std::mt19937 random(8);
    for (unsigned flavour = 0; flavour < Flavours; ++flavour) {
        for (u64 const length : Lengths) {
            std::vector<u8> const bytes = MakeText(random, EStringEncoding::UTF16, flavour, length);
            CString const text(m_text.PlaceAtEnd(bytes.data(), bytes.size()), EStringEncoding::UTF16);
            u64 const room = text.GetLength() * 3 + 1;
            auto const copies = Both([&] {
                u8* const out = m_out.TakeTail(room);
                std::memset(out, 0xCD, room);
                text.CopyAs(EStringEncoding::UTF8, out, true);
                return std::vector<u8>(out, out + room);
            });
            u64 const used =
                static_cast<u64>(std::find(copies.first.begin(), copies.first.end(), u8{0}) - copies.first.begin());
            ASSERT_TRUE(std::equal(copies.first.begin(), copies.first.begin() + static_cast<std::ptrdiff_t>(used + 1),
                                   copies.second.begin()));
        }
    }
}

TEST_P(CStringKernels, ASCIICase)
{
    std::mt19937 random(9);
    for (EStringEncoding::Type const encoding : AllEncodings) {
        for (unsigned flavour = 0; flavour < Flavours; ++flavour) {
            for (u64 const length : Lengths) {
                std::vector<u8> const bytes = MakeText(random, encoding, flavour, length);
                CString const text(bytes.data(), encoding);
                auto const lower = Both([&] {
                    CMutableString const copy = text.CopyToLowercaseASCII();
                    return std::make_pair(copy.GetLength(), BytesOf(copy));
                });
                ASSERT_EQ(lower.first, lower.second) << flavour << ' ' << length;
                auto const upper = Both([&] {
                    CMutableString const copy = text.CopyToUppercaseASCII();
                    return std::make_pair(copy.GetLength(), BytesOf(copy));
                });
                ASSERT_EQ(upper.first, upper.second) << flavour << ' ' << length;
            }
        }
    }
}

TEST_P(CStringKernels, Searching)
{
    std::mt19937 random(10);
    for (EStringEncoding::Type const encoding : AllEncodings) {
        for (EStringEncoding::Type const needleEncoding : AllEncodings) {
            for (unsigned flavour = 0; flavour < Flavours; ++flavour) {
                for (u64 const length : {u64{0}, u64{5}, u64{31}, u64{64}, u64{100}, u64{333}, u64{1500}}) {
                    std::vector<u8> const bytes = MakeText(random, encoding, flavour, length);
                    CString const text(m_text.PlaceAtEnd(bytes.data(), bytes.size()), encoding);
                    // A part of the text, so that there is something to find, and a text of its own.
                    u64 const from = random() % (length + 1);
                    CMutableString const part = text.GetSubstring(from, from + 1 + random() % 90);
                    std::vector<u8> const needleBytes = MakeText(random, needleEncoding, flavour, 1 + random() % 3);
                    CMutableString const converted = needleEncoding == 0   ? part.ToUTF8()
                                                     : needleEncoding == 1 ? part.ToUTF16()
                                                                           : part.ToUTF32();
                    for (CString const& needle :
                         {CString(part), CString(converted), CString(needleBytes.data(), needleEncoding)}) {
                        CString const guarded(m_other.PlaceAtEnd(needle.IsEmpty() ? "\0\0\0" : needle.GetData(),
                                                                 needle.IsEmpty() ? 4 : needle.GetAllocatedSize()),
                                              needle.GetEncoding());
                        u64 const start = random() % 3 == 0 ? random() % (length + 2) : 0;
                        auto const found = Both([&] {
                            return std::vector<u64>{text.Find(guarded, start), text.FindLast(guarded, start),
                                                    text.Count(guarded, start),
                                                    text.Find(guarded.GetCodePointAt(0), start),
                                                    text.FindLast(guarded.GetCodePointAt(0), start)};
                        });
                        ASSERT_EQ(found.first, found.second)
                            << encoding << ' ' << needleEncoding << ' ' << flavour << ' ' << length;
                        auto const replaced = Both([&] { return BytesOf(text.Replace(guarded, u"<\u20AC>", start)); });
                        ASSERT_EQ(replaced.first, replaced.second);
                        // And with nothing in front of the text that may be looked back at.
                        std::memcpy(m_out.GetBegin(), bytes.data(), bytes.size());
                        CString const front(m_out.GetBegin(), encoding);
                        ASSERT_EQ(front.Find(guarded, start), found.first[0]);
                        ASSERT_EQ(front.FindLast(guarded, start), found.first[1]);
                    }
                }
            }
        }
    }
}

TEST_P(CStringKernels, Comparison)
{
    std::mt19937 random(11);
    for (EStringEncoding::Type const encoding : AllEncodings) {
        u64 const unitSize = Encodings::GetUnitSize(encoding);
        for (unsigned flavour = 0; flavour < Flavours; ++flavour) {
            for (u64 const length : Lengths) {
                std::vector<u8> const bytes = MakeText(random, encoding, flavour, length);
                std::vector<u8> other = bytes;
                if (bytes.size() > unitSize && random() % 4 != 0) {
                    u64 const unit = random() % (bytes.size() / unitSize - 1);
                    if (random() % 4 == 0)
                        other.resize((unit + 1) * unitSize, 0),
                            std::memset(other.data() + unit * unitSize, 0, unitSize);
                    else
                        other[unit * unitSize] = static_cast<u8>(other[unit * unitSize] ^ 0x42);
                }
                // At every distance from the ends of both pages.
                for (u64 const shift : {u64{0}, unitSize, 5 * unitSize, 40 * unitSize}) {
                    u8* const first = m_text.TakeTail(bytes.size() + shift);
                    std::memcpy(first, bytes.data(), bytes.size());
                    CString const left(first, encoding);
                    CString const right(m_other.PlaceAtEnd(other.data(), other.size()), encoding);
                    std::memcpy(m_out.GetBegin(), bytes.data(), bytes.size());
                    CString const front(m_out.GetBegin(), encoding);
                    ASSERT_EQ(front == right, left == right);
                    ASSERT_EQ(right < front, right < left);
                    auto const results = Both([&] {
                        return std::vector<bool>{left == right, left<right, left> right, right == left,
                                                 right < left,  left != right,           left == left};
                    });
                    ASSERT_EQ(results.first, results.second) << flavour << ' ' << length << ' ' << shift;
                }
            }
        }
    }
}

// Text that is not aligned to its units, in every place of a page's end.
TEST_P(CStringKernels, UnalignedText)
{
    for (u64 shift = 0; shift < 70; ++shift) {
        char16_t const wide[] = u"unaligned text of more than one register";
        u8* const place = m_text.TakeTail(sizeof(wide) + shift);
        std::memcpy(place, wide, sizeof(wide));
        CString const text(place, EStringEncoding::UTF16);
        ASSERT_EQ(text.GetLength(), std::size(wide) - 1);
        ASSERT_EQ(text, "unaligned text of more than one register");
        ASSERT_EQ(text, wide);
        ASSERT_EQ(text.Find("register"), 32u);
        char32_t const widest[] = U"unaligned text of more than one register";
        u8* const far = m_other.TakeTail(sizeof(widest) + shift);
        std::memcpy(far, widest, sizeof(widest));
        ASSERT_EQ(CString(far, EStringEncoding::UTF32).GetLength(), std::size(wide) - 1);
        ASSERT_EQ(CString(far, EStringEncoding::UTF32), widest);
    }
}

// Every combination of kinds of units, at every place around the end of a block, up to the terminator.
TEST_P(CStringKernels, EveryShortEnding)
{
    u8 const kinds[] = {0x41, 0x8F, 0x90, 0xA0, 0xBF, 0xC1, 0xC3, 0xE0, 0xEF, 0xF0, 0xF4, 0xFF};
    u64 const lengths[] = {0, 61, 62, 63, 64, 126, 250, 253, 255, 256};
    for (u64 const length : lengths) {
        std::vector<u8> bytes(length + 4, 'a');
        bytes.back() = 0;
        u64 const combinations = std::size(kinds) * std::size(kinds) * std::size(kinds);
        for (u64 combination = 0; combination < combinations; ++combination) {
            bytes[length] = kinds[combination % std::size(kinds)];
            bytes[length + 1] = kinds[combination / std::size(kinds) % std::size(kinds)];
            bytes[length + 2] = kinds[combination / std::size(kinds) / std::size(kinds)];
            for (u64 cut = 0; cut < 3; ++cut) {
                CString const text(m_text.PlaceAtEnd(bytes.data() + cut, bytes.size() - cut), EStringEncoding::UTF8);
                auto const results = Both([&] {
                    return std::vector<u64>{text.GetLength(),      text.GetAllocatedSizeAs(EStringEncoding::UTF16),
                                            text.GetHash(),        text.Find(u"\uFFFF"),
                                            text.Find("\xC3\x81"), text.Find(0xC1),
                                            text.Find('A'),        text.Find("\xEF\x80\x80")};
                });
                ASSERT_EQ(results.first, results.second) << length << ' ' << combination << ' ' << cut;
                auto const converted = Both([&] { return BytesOf(text.ToUTF16()); });
                ASSERT_EQ(converted.first, converted.second) << length << ' ' << combination << ' ' << cut;
            }
        }
    }
}

// Every run of surrogates, well-formed or not, at every place around the end of a register, up to the terminator.
TEST_P(CStringKernels, EverySurrogateRun)
{
    char16_t const kinds[] = {u'a', char16_t{0xD83D}, char16_t{0xDE00}, char16_t{0xFE00}, char16_t{0xFFFF}};
    u64 const lengths[] = {0, 1, 12, 27, 28, 29, 30, 31, 60, 62, 126};
    for (u64 const length : lengths) {
        std::u16string units(length + 5, u'z');
        for (u64 combination = 0; combination < 5 * 5 * 5 * 5 * 5; ++combination) {
            u64 rest = combination;
            for (u64 place = 0; place < 5; ++place, rest /= 5)
                units[length + place] = kinds[rest % 5];
            CString const text(m_text.PlaceAtEnd(units.c_str(), 2 * units.size() + 2), EStringEncoding::UTF16);
            auto const results = Both([&] {
                return std::vector<u64>{text.GetLength(), text.GetAllocatedSizeAs(EStringEncoding::UTF8),
                                        text.Find(u"a\uFE00"), text.Find(0x7A00), text.Find(u'a')};
            });
            ASSERT_EQ(results.first, results.second) << length << ' ' << combination;
            auto const narrow = Both([&] { return BytesOf(text.ToUTF8()); });
            ASSERT_EQ(narrow.first, narrow.second) << length << ' ' << combination;
            auto const wide = Both([&] { return BytesOf(text.ToUTF32()); });
            ASSERT_EQ(wide.first, wide.second) << length << ' ' << combination;
        }
    }
}

// Every length around that of a block, in every flavour, with the last byte in front of the end of its memory, the
// first byte at its beginning, and an odd place between: what short texts take, and where they hand over to the long
// ways.
TEST_P(CStringKernels, EveryShortLength)
{
    std::mt19937 random(12);
    for (EStringEncoding::Type const encoding : AllEncodings) {
        u64 const unitSize = Encodings::GetUnitSize(encoding);
        for (unsigned flavour = 0; flavour < Flavours; ++flavour) {
            for (u64 length = 0; length <= 70; ++length) {
                SCOPED_TRACE(testing::Message()
                             << "encoding " << encoding << " flavour " << flavour << " length " << length);
                std::vector<u8> const bytes = MakeText(random, encoding, flavour, length);
                u64 const shift = unitSize * (1 + length % 67);
                u8* const shifted = m_text.TakeTail(bytes.size() + shift);
                for (u8* const place : {m_text.TakeTail(bytes.size()), m_text.GetBegin(), shifted}) {
                    std::memcpy(place, bytes.data(), bytes.size());
                    CString const text(place, encoding);
                    for (EStringEncoding::Type const target : AllEncodings) {
                        auto const measures = Both([&] {
                            return std::vector<u64>{text.GetLength(), text.GetAllocatedSize(),
                                                    text.GetAllocatedSizeAs(target)};
                        });
                        ASSERT_EQ(measures.first, measures.second) << "as " << target;
                        // To the end of memory, and from its beginning on: nothing in front of it may be written.
                        for (bool const atEnd : {false, true}) {
                            auto const copies = Both([&] {
                                u64 const size = measures.first[2];
                                u8* const out = atEnd ? m_out.TakeTail(size) : m_out.GetBegin();
                                std::memset(out, 0xCD, size);
                                text.CopyAs(target, out, false);
                                return std::vector<u8>(out, out + size);
                            });
                            ASSERT_EQ(copies.first, copies.second) << "as " << target;
                        }
                    }
                }
            }
        }
    }
}

// Equality, order and searches of short texts at every distance of one from the other and from the ends of memory.
TEST_P(CStringKernels, EveryShortPair)
{
    std::mt19937 random(13);
    for (EStringEncoding::Type const encoding : AllEncodings) {
        u64 const unitSize = Encodings::GetUnitSize(encoding);
        for (u64 length = 0; length <= 140; length += length < 70 ? 1 : 7) {
            std::vector<u8> const bytes = MakeText(random, encoding, 6, length);
            u8* const begin = m_text.GetBegin();
            std::memcpy(begin, bytes.data(), bytes.size());
            for (u64 change = 0; change <= length; change += 1 + length / 9) {
                std::vector<u8> other = bytes;
                other[change * unitSize] = static_cast<u8>(other[change * unitSize] + 1);
                if (change == length)
                    other.resize(other.size() + unitSize);
                CString const end(m_other.PlaceAtEnd(other.data(), other.size()), encoding);
                for (u64 const shift : {u64{0}, unitSize, 3 * unitSize, 63 * unitSize}) {
                    u8* const place = m_text.TakeTail(bytes.size() + shift);
                    std::memcpy(place, bytes.data(), bytes.size());
                    CString const text(place, encoding);
                    CString const same(begin, encoding);
                    ASSERT_TRUE(text == same) << length << ' ' << shift;
                    ASSERT_FALSE(text < same) << length << ' ' << shift;
                    ASSERT_FALSE(text == end) << length << ' ' << change << ' ' << shift;
                    ASSERT_TRUE(text < end) << length << ' ' << change << ' ' << shift;
                    ASSERT_TRUE(end > text) << length << ' ' << change << ' ' << shift;
                    auto const found = Both([&] {
                        return std::vector<u64>{text.Find('a'), text.Find('b'), text.Find('d'),    text.Find("ab"),
                                                text.Find(end), end.Find(text), text.Find("abca"), text.Find(0xE9)};
                    });
                    ASSERT_EQ(found.first, found.second) << length << ' ' << change << ' ' << shift;
                }
            }
        }
    }
}

// One unit and a few in front of the end of memory, with one character of another kind at every place.
TEST_P(CStringKernels, SearchesAroundOtherCharacters)
{
    for (EStringEncoding::Type const encoding : AllEncodings) {
        for (u64 length = 1; length <= 150; length += length < 70 ? 1 : 9) {
            for (u64 place = 0; place < length; place += 1 + length / 11) {
                for (u32 const kind : {0x20ACu, 0xE9u, 0xFFFFu, u32{'a'}, u32{'#'}}) {
                    std::vector<u8> bytes;
                    for (u64 index = 0; index < length; ++index) {
                        u8 buffer[8];
                        u32 const codePoint = index == place        ? kind
                                              : index + 1 == length ? '#'
                                                                    : 'a' + static_cast<u32>(index % 7);
                        u8* const end =
                            Encodings::Dispatch(encoding, [&](auto rules) { return rules.Write(codePoint, buffer); });
                        bytes.insert(bytes.end(), buffer, end);
                    }
                    bytes.resize(bytes.size() + Encodings::GetUnitSize(encoding));
                    CString const text(m_text.PlaceAtEnd(bytes.data(), bytes.size()), encoding);
                    auto const found = Both([&] {
                        return std::vector<u64>{text.Find('#'),  text.Find('g'),  text.Find('z'),  text.Find(kind),
                                                text.Find("g#"), text.Find(u"#"), text.Find("#a"), text.Find("fgab")};
                    });
                    ASSERT_EQ(found.first, found.second) << encoding << ' ' << length << ' ' << place << ' ' << kind;
                }
            }
        }
    }
}

// Short texts at every place around the end of a page, among letters that would be found if they belonged to the text.
TEST_P(CStringKernels, SearchesAroundPageEnds)
{
    std::mt19937 random(15);
    auto const makeLetters = [&random](u64 count) {
        std::string letters;
        for (u64 index = 0; index < count; ++index)
            letters += static_cast<char>('a' + random() % 3);
        return letters;
    };
    u8* const textPage = m_text.GetBegin() + 4096;
    u8* const needlePage = m_other.GetBegin() + 8192;
    std::string const surroundings = makeLetters(512);
    for (u64 ahead = 0; ahead <= 70; ++ahead) {
        for (u64 const length : {u64{1}, u64{2}, u64{5}, u64{17}, u64{40}, u64{63}, u64{64}, u64{66}, u64{130}}) {
            std::string const letters = makeLetters(length);
            std::memcpy(textPage - 256, surroundings.data(), surroundings.size());
            std::memcpy(textPage - ahead, letters.c_str(), length + 1);
            u8* const last = m_text.PlaceAtEnd(letters.c_str(), length + 1);
            for (u64 const size : {u64{1}, u64{2}, u64{3}, u64{6}, u64{50}}) {
                std::string const wanted =
                    random() % 2 == 0 && size <= length ? letters.substr(length - size) : makeLetters(size);
                std::memcpy(needlePage - 256, surroundings.data(), surroundings.size());
                u64 const needleAhead = random() % 70;
                std::memcpy(needlePage - needleAhead, wanted.c_str(), size + 1);
                u8* const lastNeedle = m_other.PlaceAtEnd(wanted.c_str(), size + 1);
                u64 const expected = letters.find(wanted);
                for (u8 const* const text : {textPage - ahead, last}) {
                    for (u8 const* const needle : {needlePage - needleAhead, lastNeedle}) {
                        ASSERT_EQ(CString(text, EStringEncoding::UTF8).Find(CString(needle, EStringEncoding::UTF8)),
                                  expected)
                            << letters << ' ' << wanted << ' ' << ahead << ' ' << needleAhead;
                    }
                }
            }
        }
    }
}

// What stands behind a terminator is not looked at, whatever it is.
TEST_P(CStringKernels, BehindTheTerminator)
{
    std::mt19937 random(14);
    for (EStringEncoding::Type const encoding : AllEncodings) {
        u64 const unitSize = Encodings::GetUnitSize(encoding);
        for (u64 length = 0; length <= 70; ++length) {
            for (unsigned flavour = 0; flavour < Flavours; ++flavour) {
                std::vector<u8> const bytes = MakeText(random, encoding, flavour, length);
                std::vector<u8> const behind = MakeText(random, encoding, flavour == 0 ? 6 : 7, 200);
                u8* const place = m_text.GetBegin() + unitSize * (random() % 100);
                u8* const copy = m_other.GetBegin() + unitSize * (random() % 100);
                std::memset(m_text.GetBegin(), 0, 4096);
                std::memset(m_other.GetBegin(), 0, 4096);
                std::memcpy(place, bytes.data(), bytes.size());
                std::memcpy(copy, bytes.data(), bytes.size());
                CString const text(place, encoding);
                CString const same(copy, encoding);
                CMutableString const needle = CString(behind.data(), encoding).GetSubstring(0, 3);
                auto const ask = [&] {
                    std::vector<u64> results = {text.GetLength(),
                                                text.GetAllocatedSize(),
                                                text.Find(needle),
                                                text.Find(needle.GetCodePointAt(0)),
                                                text.FindLast(needle),
                                                text.Find('b'),
                                                text == same,
                                                text < same,
                                                same < text};
                    for (EStringEncoding::Type const target : AllEncodings) {
                        results.push_back(text.GetAllocatedSizeAs(target));
                        std::vector<u8> out(results.back());
                        text.CopyAs(target, out.data(), false);
                        results.insert(results.end(), out.begin(), out.end());
                    }
                    return results;
                };
                auto const alone = Both(ask);
                std::memcpy(place + bytes.size(), behind.data(), behind.size());
                auto const followed = Both(ask);
                ASSERT_EQ(alone.first, alone.second) << encoding << ' ' << flavour << ' ' << length;
                ASSERT_EQ(alone.first, followed.first) << encoding << ' ' << flavour << ' ' << length;
                ASSERT_EQ(alone.first, followed.second) << encoding << ' ' << flavour << ' ' << length;
            }
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Sets, CStringKernels,
                         ::testing::Values(ELevel::Plain, ELevel::SSE2, ELevel::AVX2, ELevel::AVX512),
                         [](auto const& instance) {
                             return instance.param == ELevel::Plain  ? "Plain"
                                    : instance.param == ELevel::SSE2 ? "SSE2"
                                    : instance.param == ELevel::AVX2 ? "AVX2"
                                                                     : "AVX512";
                         });
