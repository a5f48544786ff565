/// \file
/// How the arguments of Format reach the one engine behind it: each becomes a small record, and nothing of the engine
/// itself is compiled into the caller.
#pragma once

#include <vlmcore/export.h>
#include <vlmcore/strings.h>
#include <vlmcore/types.h>

#include <type_traits>

namespace Velmor {

struct SFormatResult;

namespace Impl {

/// One argument as the engine sees it. Refers to the caller's text, copies nothing.
struct SFormatArgument {
    enum EKind : u32 {
        Signed,   ///< `number` holds the value, sign-extended
        Unsigned, ///< `number` holds the value
        String,   ///< `text` points to an IString
        View,     ///< `text` points to terminated text in `encoding`
    };
    EKind kind;
    EStringEncoding::Type encoding;
    union {
        u64 number;
        void const* text;
    };
    u64 size; ///< of a View, in bytes without the terminator; UnknownSize when nobody has measured it

    static constexpr u64 UnknownSize = ~u64{0};
};

template <class T>
inline constexpr bool IsCharacter =
    std::is_same_v<T, char> || std::is_same_v<T, wchar_t> || std::is_same_v<T, char8_t> ||
    std::is_same_v<T, char16_t> || std::is_same_v<T, char32_t>;

/// Integers of every width and enumerations that convert to one; neither bool nor characters, which would print as
/// numbers.
template <class T>
inline constexpr bool IsFormatInteger = (std::is_integral_v<T> && !std::is_same_v<T, bool> && !IsCharacter<T>) ||
                                        (std::is_enum_v<T> && std::is_convertible_v<T, u64>);

template <class T>
inline constexpr bool IsFormatText = std::is_convertible_v<T const&, CString>;

template <class T>
inline constexpr bool IsFormatArgument = IsFormatInteger<T> || (IsFormatText<T> && !std::is_null_pointer_v<T>);

template <class T>
[[nodiscard]] inline SFormatArgument MakeFormatArgument(T const& value)
{
    SFormatArgument argument;
    argument.encoding = EStringEncoding::UTF8;
    if constexpr (IsFormatInteger<T>) {
        using TNumber =
            typename std::conditional_t<std::is_enum_v<T>, std::underlying_type<T>, std::type_identity<T>>::type;
        TNumber const number = static_cast<TNumber>(value);
        argument.kind = std::is_signed_v<TNumber> ? SFormatArgument::Signed : SFormatArgument::Unsigned;
        argument.number = static_cast<u64>(number);
    }
    else if constexpr (std::is_base_of_v<IString, T>) {
        argument.kind = SFormatArgument::String;
        argument.text = static_cast<IString const*>(&value);
    }
    else {
        CString const view(value);
        argument.kind = SFormatArgument::View;
        argument.encoding = view.GetEncoding();
        argument.text = view.GetData();
        argument.size = SFormatArgument::UnknownSize;
        // Of literals the compiler knows it.
        if constexpr (std::is_convertible_v<T const&, char const*>)
            if (char const* const text = value; text != nullptr)
                argument.size = __builtin_strlen(text);
    }
    return argument;
}

VLM_API void FormatArguments(CMutableString& result, CString const& text, SFormatArgument const* arguments, u64 count);
VLM_API SFormatResult FormatArgumentsTo(void* buffer, u64 bufferSize, CString const& text,
                                        SFormatArgument const* arguments, u64 count);

} // namespace Impl
} // namespace Velmor
