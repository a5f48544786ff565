// Reaches the protected members of the string classes, and prints texts in failure messages.
#pragma once

#include <vlmcore/strings.h>

#include <ostream>

namespace Velmor {

// GoogleTest finds these by the argument's namespace.
inline void PrintTo(IString const& text, std::ostream* out)
{
    if (text.GetData() == nullptr) {
        *out << "(null)";
        return;
    }
    *out << "UTF-" << 8 * Encodings::GetUnitSize(text.GetEncoding()) << " {" << std::hex;
    for (u32 const codePoint : text.GetCodePoints())
        *out << ' ' << codePoint;
    *out << std::dec << " }";
}
inline void PrintTo(CString const& text, std::ostream* out)
{
    PrintTo(static_cast<IString const&>(text), out);
}
inline void PrintTo(CMutableString const& text, std::ostream* out)
{
    PrintTo(static_cast<IString const&>(text), out);
}

namespace Test {

class CConverters : public IString {
public:
    using IString::ConvertUTF16;
    using IString::ConvertUTF32;
    using IString::ConvertUTF8;
};

class CTestString : public CMutableString {
public:
    using CMutableString::Assign;
    using CMutableString::AssignDouble;
    using CMutableString::AssignInt64;
    using CMutableString::AssignUInt64;
    using CMutableString::CMutableString;
    using CMutableString::Convert;
    using CMutableString::operator=;
};

inline constexpr EStringEncoding::Type UTF8 = EStringEncoding::UTF8;
inline constexpr EStringEncoding::Type UTF16 = EStringEncoding::UTF16;
inline constexpr EStringEncoding::Type UTF32 = EStringEncoding::UTF32;
constexpr EStringEncoding::Type AllEncodings[] = {EStringEncoding::UTF8, EStringEncoding::UTF16,
                                                  EStringEncoding::UTF32};

inline CMutableString As(char const* utf8, EStringEncoding::Type encoding)
{
    return CMutableString(utf8, encoding);
}

} // namespace Test
} // namespace Velmor
