/// \file
/// Messages from templates with positional placeholders.
///
///     CMutableString line;
///     Format(line, "%1: [%2] %3\n", count, level, message);
///     Format(line, "%x1 is %1, 100%%", 255u);                  // 0xFF is 255, 100%
///
/// | in the template       | prints                                                                            |
/// |-----------------------|-----------------------------------------------------------------------------------|
/// | "%1" to "%8"          | the argument of that number, as often as it is named; "0" when there is none      |
/// | "%x1" to "%x8"        | an integer as "0x" and upper-case digits, a string as its GetHash() in that form; |
/// |                       | "0x0" when there is none                                                          |
/// | "%%", "%x%"           | one "%"                                                                           |
/// | "%" and anything else | nothing: the character behind the "%" or "%x" is dropped with it                  |
/// | "%", "%x" at the end  | nothing                                                                           |
///
/// There is no width, padding or precision. Arguments are integers of every width (negative ones print in hexadecimal
/// as their 64-bit two's complement), enumerations that convert to integers, strings of the library, and whatever
/// else converts to CString: literals of all kinds. Their number (eight at most) and kinds are checked when the call is
/// compiled; bool, characters and floating-point numbers are refused rather than guessed at.
///
/// The result has the template's encoding, whatever the arguments have. A null template is an empty one.
///
/// Threads: any; the call touches nothing but its own arguments.
#pragma once

#include <vlmcore/impl/Core_Format.h>

namespace Velmor {

/// What FormatTo did. Sizes are in bytes and do not count the terminator.
struct SFormatResult {
    u64 size;   ///< written in front of the terminator
    u64 needed; ///< what the whole text takes up

    /// True when the text was cut to fit.
    [[nodiscard]] constexpr bool IsTruncated() const { return size < needed; }
};

/// Replaces `result` by the formatted text. The template and the arguments may be the result's own text. One
/// allocation, of exactly the size of the result. Throws CBadAllocation; the result then keeps its text.
template <class... Arguments>
inline void Format(CMutableString& result, CString const& text, Arguments const&... arguments)
{
    static_assert(sizeof...(Arguments) <= 8, "Format takes at most eight arguments");
    static_assert((Impl::IsFormatArgument<Arguments> && ...), "Format takes integers and strings");
    if constexpr (sizeof...(Arguments) == 0) {
        Impl::FormatArguments(result, text, nullptr, 0);
    }
    else {
        Impl::SFormatArgument const list[] = {Impl::MakeFormatArgument(arguments)...};
        Impl::FormatArguments(result, text, list, sizeof...(Arguments));
    }
}

/// Formats into memory of the caller. The text is written in the template's encoding and always terminated; what does
/// not fit is left out, never a part of a character. A buffer too small for the terminator stays untouched. Must not
/// overlap the template or an argument.
/// \param bufferSize  bytes, the terminator's included. No alignment is needed.
/// Allocates only for an argument of another encoding that has to be cut; throws CBadAllocation when it cannot, with
/// nothing but the start of the text written.
template <class... Arguments>
inline SFormatResult FormatTo(void* buffer, u64 bufferSize, CString const& text, Arguments const&... arguments)
{
    static_assert(sizeof...(Arguments) <= 8, "FormatTo takes at most eight arguments");
    static_assert((Impl::IsFormatArgument<Arguments> && ...), "FormatTo takes integers and strings");
    if constexpr (sizeof...(Arguments) == 0) {
        return Impl::FormatArgumentsTo(buffer, bufferSize, text, nullptr, 0);
    }
    else {
        Impl::SFormatArgument const list[] = {Impl::MakeFormatArgument(arguments)...};
        return Impl::FormatArgumentsTo(buffer, bufferSize, text, list, sizeof...(Arguments));
    }
}

} // namespace Velmor
