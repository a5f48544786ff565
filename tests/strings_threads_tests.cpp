// Labels: threads
// Operations that leave a text as it is, on the same texts from several threads at once.
#include <gtest/gtest.h>

#include <vlmcore/format.h>
#include <vlmcore/strings.h>

#include "TestHeap.h"

#include <thread>
#include <vector>

using namespace Velmor;

namespace {

using CParts = TVector<CMutableString, 1>;

/// The first operation on "cost 20\u20AC today" in UTF-16 that does not give what it should; null when all do.
char const* FindFault(IString const& text)
{
    if (text.GetLength() != 14 || text.GetAllocatedSize() != 30)
        return "measures";
    if (text.GetAllocatedSizeAs(EStringEncoding::UTF8) != 17 || text.GetByteOffset(9) != 18)
        return "sizes";
    if (text.GetCodePointAt(7) != 0x20AC || text.GetSubstring(9) != "today" || text.GetSubstring(5, 7) != "20")
        return "parts";
    if (text.Find("20") != 5 || text.FindLast(u'o') != 10 || text.Count(U"t") != 2 || !text.StartsWith("cost"))
        return "search";
    if (text.GetHash() != 0x70C36E55 || text.GetHash(0, 2) != 0x08318CC7)
        return "hashes";
    if (text.GetDistance(u"cost 21\u20AC today!") != 2)
        return "distance";
    if (text.ToUTF8() != text || text.ToUTF32().GetAllocatedSize() != 60)
        return "conversions";
    if (text.Replace(0x20AC, '$') != "cost 20$ today" || text.Replace("20", "a ") != u"cost a \u20AC today")
        return "replacements";
    if (text.CopyToUppercaseASCII() != u"COST 20\u20AC TODAY" || text.Append("!").GetLength() != 15)
        return "copies";
    CParts pieces;
    text.Split(" ", pieces);
    if (pieces.GetCount() != 3 || pieces[2] != "today" || IString::Join("_", pieces) != u"cost_20\u20AC_today")
        return "pieces";
    CMutableString message;
    Format(message, "%1|%2|%x2", text, 255);
    if (message != "cost 20\xE2\x82\xAC today|255|0xFF")
        return "format";
    u64 sum = 0;
    for (u32 const codePoint : text.GetCodePoints())
        sum += codePoint;
    return sum == 9512 && text.GetSubstring(5).ToInteger(EBinaryEncoding::BigEndian) == 20 ? nullptr : "iteration";
}

} // namespace

TEST(StringThreads, TextsAreReadBySeveralAtOnce)
{
    CMutableString const owned(u"cost 20\u20AC today");
    CString const view(owned);
    std::vector<char const*> faults(4, nullptr);
    std::vector<std::thread> threads;
    for (char const*& fault : faults) {
        threads.emplace_back([&] {
            for (int round = 0; round < 500 && fault == nullptr; ++round) {
                char const* const first = FindFault(owned);
                fault = first != nullptr ? first : FindFault(view);
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    for (char const* const fault : faults)
        EXPECT_STREQ(fault, nullptr);
}
