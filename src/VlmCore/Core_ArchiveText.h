/// \file
/// Texts that archives hand out in the encoding of what they were asked with.
#pragma once

#include <vlmcore/strings.h>

namespace Velmor {

/// A copy of `text` in `encoding`.
[[nodiscard]] inline CMutableString CopyInEncoding(CString const& text, EStringEncoding::Type encoding)
{
    if (text.GetEncoding() == encoding)
        return CMutableString(text);
    if (encoding == EStringEncoding::UTF8)
        return text.ToUTF8();
    return encoding == EStringEncoding::UTF16 ? text.ToUTF16() : text.ToUTF32();
}

} // namespace Velmor
