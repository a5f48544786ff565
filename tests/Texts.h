/// \file
/// Texts of the library as standard strings, for comparison in tests.
#pragma once

#include <vlmcore/strings.h>

#include <string>

namespace VlmTest {

/// The units of a text in UTF-16; a null text is empty.
[[nodiscard]] inline std::u16string Units(Velmor::CString const& text)
{
    Velmor::CMutableString const wide = text.ToUTF16();
    return wide.GetData() == nullptr ? std::u16string() : static_cast<char16_t const*>(wide.GetData());
}

/// The bytes of a text in UTF-8; a null text is empty.
[[nodiscard]] inline std::string Bytes(Velmor::CString const& text)
{
    Velmor::CMutableString const narrow = text.ToUTF8();
    return narrow.GetData() == nullptr ? std::string() : static_cast<char const*>(narrow.GetData());
}

} // namespace VlmTest
