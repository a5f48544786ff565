// Format and FormatTo on arbitrary templates and texts of all encodings against the plain rule, in memory without a
// spare byte.
#include <vlmcore/format.h>

#include "FuzzSupport.h"
#include "support/PlainText.h"

#include <string>
#include <vector>

using namespace Velmor;
using namespace Velmor::Test;

namespace {

/// The message as the rule builds it, without a terminator, and the places where it may be cut.
struct SExpected {
    EStringEncoding::Type encoding;
    std::vector<u8> bytes;
    std::vector<u64> boundaries{0};

    void Append(u8 const* from, u64 size)
    {
        bytes.insert(bytes.end(), from, from + size);
        if (size != 0)
            boundaries.push_back(bytes.size());
    }
    void AppendCharacter(u32 codePoint)
    {
        std::vector<u8> const written = Write({codePoint}, encoding);
        Append(written.data(), written.size() - Encodings::GetUnitSize(encoding));
    }
    void AppendASCII(std::string const& text)
    {
        for (char character : text)
            AppendCharacter(static_cast<u8>(character));
    }
    void AppendText(CString const& text)
    {
        SPlainText const plain = Read(text);
        if (text.GetEncoding() == encoding) {
            for (u64 i = 0; i < plain.GetLength(); ++i)
                Append(static_cast<u8 const*>(text.GetData()) + plain.offsets[i],
                       plain.offsets[i + 1] - plain.offsets[i]);
            return;
        }
        // What was converted is cut where a walk over it stops. A code point 0 (of a stray byte) is a unit among
        // others.
        std::vector<u8> const converted = Write(plain.codePoints, encoding);
        u64 const unitSize = Encodings::GetUnitSize(encoding);
        u64 const end = converted.size() - unitSize;
        for (u64 at = 0; at < end;) {
            SPlainText const run = Read(CString(converted.data() + at, encoding));
            for (u64 i = 0; i < run.GetLength(); ++i)
                Append(converted.data() + at + run.offsets[i], run.offsets[i + 1] - run.offsets[i]);
            at += run.offsets.back();
            for (; at < end && std::all_of(
                                   &converted[at], &converted[at] + unitSize, [](u8 b) { return b == 0; });
                 at += unitSize)
                Append(converted.data() + at, unitSize);
        }
    }
};

std::string Hex(u64 value)
{
    std::string digits;
    do {
        digits.insert(digits.begin(), "0123456789ABCDEF"[value % 16]);
        value /= 16;
    } while (value != 0);
    return "0x" + digits;
}

struct SArguments {
    i64 number;
    u32 small;
    CString first;
    CString second;
};

void AppendSlot(SExpected& message, u32 slot, bool hex, SArguments const& arguments)
{
    switch (slot) {
    case 1:
        message.AppendASCII(hex ? Hex(static_cast<u64>(arguments.number)) : std::to_string(arguments.number));
        break;
    case 2:
        message.AppendASCII(hex ? Hex(arguments.small) : std::to_string(arguments.small));
        break;
    case 3:
    case 4: {
        CString const& text = slot == 3 ? arguments.first : arguments.second;
        if (hex)
            message.AppendASCII(Hex(text.GetHash()));
        else
            message.AppendText(text);
        break;
    }
    default:
        message.AppendASCII(hex ? "0x0" : "0");
    }
}

SExpected PlainFormat(CString const& text, SArguments const& arguments)
{
    SExpected message{text.GetEncoding(), {}};
    SPlainText const plain = Read(text);
    u64 const length = plain.GetLength();
    for (u64 i = 0; i < length; ++i) {
        u32 const code = plain.codePoints[i];
        if (code == 0) {
            message.Append(static_cast<u8 const*>(text.GetData()) + plain.offsets[i],
                           plain.offsets[i + 1] - plain.offsets[i]);
        }
        else if (code != '%') {
            message.AppendCharacter(code);
        }
        else {
            ++i;
            bool const hex = i < length && plain.codePoints[i] == 'x';
            if (hex)
                ++i;
            if (i >= length)
                break;
            u32 const selector = plain.codePoints[i];
            if (selector == '%')
                message.AppendCharacter('%');
            else if (selector >= '1' && selector <= '8')
                AppendSlot(message, selector - '0', hex, arguments);
        }
    }
    return message;
}

void CheckFormat(CString const& text, SArguments const& arguments, SExpected const& expected)
{
    u64 const unitSize = Encodings::GetUnitSize(expected.encoding);
    CMutableString result;
    Format(result, text, arguments.number, arguments.small, arguments.first, arguments.second);
    Check(result.GetEncoding() == expected.encoding, "encoding");
    Check(result.GetAllocatedSize() == expected.bytes.size() + unitSize, "size");
    Check(expected.bytes.empty() || std::memcmp(result.GetData(), expected.bytes.data(), expected.bytes.size()) == 0,
          "text");
    Check(Encodings::IsEnd<Encodings::SUTF8>(static_cast<u8 const*>(result.GetData()) + expected.bytes.size()),
          "terminator");
    Check(result.GetLength() == Read(result).GetLength(), "length");
    // The result as its own template and argument.
    CMutableString own(text);
    Format(own, own, arguments.number, arguments.small, arguments.first, arguments.second);
    Check(own.GetAllocatedSize() == result.GetAllocatedSize() &&
              std::memcmp(own.GetData(), result.GetData(), own.GetAllocatedSize()) == 0,
          "result as template");
}

void CheckFormatTo(CString const& text, SArguments const& arguments, SExpected const& expected, u64 size)
{
    u64 const unitSize = Encodings::GetUnitSize(expected.encoding);
    std::unique_ptr<u8[]> const buffer(new u8[size]);
    SFormatResult const done =
        FormatTo(buffer.get(), size, text, arguments.number, arguments.small, arguments.first, arguments.second);
    Check(done.needed == expected.bytes.size(), "needed");
    if (size < unitSize) {
        Check(done.size == 0, "no room at all");
        return;
    }
    u64 fitting = 0;
    for (u64 boundary : expected.boundaries)
        fitting = boundary <= size - unitSize ? boundary : fitting;
    Check(done.size == fitting, "cut");
    Check(fitting == 0 || std::memcmp(buffer.get(), expected.bytes.data(), fitting) == 0, "text of the buffer");
    for (u64 i = 0; i < unitSize; ++i)
        Check(buffer[fitting + i] == 0, "terminator of the buffer");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size)
{
    PrepareHeap();
    u64 const liveBefore = CountLiveBlocks();
    {
        CInput input(data, size);
        u8 const encodings = input.Take<u8>();
        i64 const number = input.Take<i64>() >> (input.Take<u8>() % 64);
        u32 const small = input.Take<u32>();
        u16 const bufferSize = input.Take<u16>();
        CExactText const first = input.TakeText(input.Take<u8>() % 64, ChooseEncoding(encodings / 3));
        CExactText const second = input.TakeText(input.Take<u8>() % 64, ChooseEncoding(encodings / 9));
        CExactText const text = input.TakeText(~u64{0}, ChooseEncoding(encodings));
        SArguments const arguments{number, small, first.Get(), second.Get()};
        SExpected const expected = PlainFormat(text.Get(), arguments);
        CheckFormat(text.Get(), arguments, expected);
        CheckFormatTo(text.Get(), arguments, expected, bufferSize % (expected.bytes.size() + 12));
        CheckFormatTo(text.Get(), arguments, expected,
                      expected.bytes.size() + Encodings::GetUnitSize(expected.encoding));
    }
    Check(CountLiveBlocks() == liveBefore, "something was not freed");
    return 0;
}
