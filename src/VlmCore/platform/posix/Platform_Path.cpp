#include "../Platform_Path.h"

#include "../Platform_SystemError.h"
#include "Posix_Errno.h"
#include "Posix_Path.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include <pwd.h>
#include <unistd.h>

namespace Velmor::Platform {

// ---- names ----

namespace {

constexpr bool IsHighSurrogate(u32 unit)
{
    return (unit & 0xFC00) == 0xD800;
}

constexpr bool IsLowSurrogate(u32 unit)
{
    return (unit & 0xFC00) == 0xDC00;
}

// U+DC80 to U+DCFF stand for bytes that are no UTF-8, U+DC5C for a backslash inside a name.
constexpr bool IsEscapedByte(u32 unit)
{
    return (unit >= 0xDC80 && unit <= 0xDCFF) || unit == 0xDC5C;
}

constexpr char16_t EscapeByte(u8 byte)
{
    return static_cast<char16_t>(0xDC00 | byte);
}

// A character of well-formed UTF-8, or one lone surrogate in UTF-8's three-byte pattern.
struct SDecoded {
    u32 codePoint = 0;
    u32 byteCount = 0; // 0: no such character here
};

SDecoded DecodeUTF8(u8 const* text, u64 count)
{
    u8 const lead = text[0];
    u32 const byteCount = lead < 0x80                   ? 1
                          : lead >= 0xC2 && lead < 0xE0 ? 2
                          : (lead & 0xF0) == 0xE0       ? 3
                          : lead >= 0xF0 && lead < 0xF5 ? 4
                                                        : 0;
    if (byteCount == 0 || byteCount > count)
        return {};
    u32 codePoint = byteCount == 1 ? lead : lead & (0x7Fu >> byteCount);
    for (u32 index = 1; index < byteCount; ++index) {
        if ((text[index] & 0xC0) != 0x80)
            return {};
        codePoint = codePoint << 6 | (text[index] & 0x3Fu);
    }
    constexpr u32 SmallestOfLength[5] = {0, 0, 0x80, 0x800, 0x10000};
    if (codePoint < SmallestOfLength[byteCount] || codePoint > 0x10FFFF)
        return {};
    return {codePoint, byteCount};
}

constexpr bool IsSurrogate(u32 codePoint)
{
    return (codePoint & 0xFFFFF800) == 0xD800;
}

// Whether the bytes begin with a character that widens without surrogates of our own making, or are at their end.
bool BeginsPlainly(u8 const* text, u64 count)
{
    if (count == 0)
        return true;
    SDecoded const decoded = DecodeUTF8(text, count);
    return decoded.byteCount != 0 && text[0] != '\\' && !IsSurrogate(decoded.codePoint);
}

// Whether a surrogate found in the bytes may stay itself: only if narrowing gives the same three bytes again, so no
// high one before something that it would pair with.
bool IsPlainSurrogate(u32 codePoint, u8 const* rest, u64 restCount)
{
    return IsHighSurrogate(codePoint) ? BeginsPlainly(rest, restCount) : !IsEscapedByte(codePoint);
}

u32 EncodeUTF8(u32 codePoint, char* target)
{
    u32 const byteCount = codePoint < 0x80 ? 1 : codePoint < 0x800 ? 2 : codePoint < 0x10000 ? 3 : 4;
    for (u32 index = byteCount; index-- > 1; codePoint >>= 6)
        target[index] = static_cast<char>(0x80 | (codePoint & 0x3F));
    constexpr u32 LeadOfLength[5] = {0, 0, 0xC0, 0xE0, 0xF0};
    target[0] = static_cast<char>(LeadOfLength[byteCount] | codePoint);
    return byteCount;
}

} // namespace

CSystemPath::CSystemPath(char16_t const* text)
{
    u64 bytes = 0;
    while (*text != 0) {
        u32 codePoint = *text++;
        char encoded[4];
        u32 count = 1;
        if (IsHighSurrogate(codePoint) && IsLowSurrogate(*text))
            codePoint = 0x10000 + ((codePoint & 0x3FF) << 10 | (*text++ & 0x3FFu));
        if (codePoint == u'\\')
            encoded[0] = '/';
        else if (IsEscapedByte(codePoint))
            encoded[0] = static_cast<char>(codePoint & 0xFF);
        else
            count = EncodeUTF8(codePoint, encoded);
        if (bytes + count >= sizeof m_text) {
            m_error = ESystemError::NameTooLong;
            break;
        }
        std::memcpy(m_text + bytes, encoded, count);
        bytes += count;
    }
    m_text[m_error == 0 ? bytes : 0] = '\0';
}

u64 WidenSystemText(char const* text, u64 count, char16_t* target)
{
    u8 const* const bytes = reinterpret_cast<u8 const*>(text);
    u64 units = 0;
    for (u64 index = 0; index < count;) {
        u8 const byte = bytes[index];
        if (byte < 0x80) {
            target[units++] = byte == '/' ? u'\\' : byte == '\\' ? EscapeByte(byte) : char16_t{byte};
            ++index;
            continue;
        }
        SDecoded const decoded = DecodeUTF8(bytes + index, count - index);
        u32 const codePoint = decoded.codePoint;
        u64 const next = index + decoded.byteCount;
        if (decoded.byteCount == 0 ||
            (IsSurrogate(codePoint) && !IsPlainSurrogate(codePoint, bytes + next, count - next))) {
            target[units++] = EscapeByte(byte);
            ++index;
            continue;
        }
        if (codePoint >= 0x10000) {
            target[units++] = static_cast<char16_t>(0xD800 | (codePoint - 0x10000) >> 10);
            target[units++] = static_cast<char16_t>(0xDC00 | (codePoint & 0x3FF));
        }
        else {
            target[units++] = static_cast<char16_t>(codePoint);
        }
        index = next;
    }
    return units;
}

void AppendSystemText(char const* text, u64 count, PathUnits& target)
{
    u64 const start = target.GetCount();
    target.Resize(start + count);
    target.Resize(start + WidenSystemText(text, count, target.GetData() + start));
}

// ---- folders of the process and the user ----

namespace {

bool IsSeparator(char16_t unit)
{
    return unit == u'\\' || unit == u'/';
}

// The value of a line XDG_DOCUMENTS_DIR="..." of the user's folder list: absolute, or below the home folder.
bool ParseFolderLine(char const* line, char const* home, PathUnits& folder)
{
    constexpr char Key[] = "XDG_DOCUMENTS_DIR=\"";
    while (*line == ' ' || *line == '\t')
        ++line;
    if (std::strncmp(line, Key, sizeof Key - 1) != 0)
        return false;
    char const* value = line + sizeof Key - 1;
    char const* const end = std::strchr(value, '"');
    constexpr char HomeReference[] = "$HOME";
    bool const belowHome = std::strncmp(value, HomeReference, sizeof HomeReference - 1) == 0;
    if (end == nullptr || (!belowHome && *value != '/'))
        return false;
    if (belowHome) {
        value += sizeof HomeReference - 1;
        AppendSystemText(home, std::strlen(home), folder);
    }
    AppendSystemText(value, static_cast<u64>(end - value), folder);
    return true;
}

bool ReadUserFolderList(char const* home, PathUnits& folder)
{
    char path[PATH_MAX];
    char const* const configuration = std::getenv("XDG_CONFIG_HOME");
    int const length = configuration != nullptr && *configuration == '/'
                           ? std::snprintf(path, sizeof path, "%s/user-dirs.dirs", configuration)
                           : std::snprintf(path, sizeof path, "%s/.config/user-dirs.dirs", home);
    if (length < 0 || static_cast<u64>(length) >= sizeof path)
        return false;
    std::FILE* const file = std::fopen(path, "re");
    if (file == nullptr)
        return false;
    bool found = false;
    char line[PATH_MAX];
    while (!found && std::fgets(line, sizeof line, file) != nullptr)
        found = ParseFolderLine(line, home, folder);
    std::fclose(file);
    return found;
}

void DropTrailingSeparators(PathUnits& path)
{
    while (path.GetCount() > 1 && path[path.GetCount() - 1] == u'\\')
        path.Resize(path.GetCount() - 1);
}

} // namespace

u32 GetCurrentFolder(PathUnits& folder)
{
    folder.Clear();
    char* const text = ::getcwd(nullptr, 0);
    if (text == nullptr)
        return LastSystemError();
    // The text came from malloc: it must go back whatever happens to the conversion.
    struct SRelease {
        char* text;
        ~SRelease() { std::free(text); }
    } const release{text};
    AppendSystemText(text, std::strlen(text), folder);
    return ESystemError::None;
}

u32 MakeAbsolutePath(char16_t const* path, PathUnits& absolute)
{
    absolute.Clear();
    if (!IsSeparator(path[0])) {
        u32 const error = GetCurrentFolder(absolute);
        if (error != 0)
            return error;
        absolute.Append(u'\\');
    }
    while (IsSeparator(path[0]) && IsSeparator(path[1]))
        ++path; // two separators in front mean nothing special here
    for (; *path != 0; ++path)
        absolute.Append(*path);
    return ESystemError::None;
}

void GetDocumentsFolder(PathUnits& folder)
{
    folder.Clear();
    char const* const configured = std::getenv("XDG_DOCUMENTS_DIR");
    if (configured != nullptr && *configured == '/') {
        AppendSystemText(configured, std::strlen(configured), folder);
        DropTrailingSeparators(folder);
        return;
    }
    char const* home = std::getenv("HOME");
    char accountBuffer[4096];
    passwd account;
    passwd* found = nullptr;
    if (home == nullptr && ::getpwuid_r(::getuid(), &account, accountBuffer, sizeof accountBuffer, &found) == 0 &&
        found != nullptr)
        home = found->pw_dir;
    if (home == nullptr)
        return;
    if (!ReadUserFolderList(home, folder)) {
        folder.Clear();
        AppendSystemText(home, std::strlen(home), folder);
        DropTrailingSeparators(folder);
        constexpr char Documents[] = "/Documents";
        AppendSystemText(Documents, sizeof Documents - 1, folder);
    }
    DropTrailingSeparators(folder);
}

u32 GetExecutablePath(PathUnits& path)
{
    path.Clear();
    char text[PATH_MAX];
    ssize_t const length = ::readlink("/proc/self/exe", text, sizeof text);
    if (length < 0)
        return LastSystemError();
    AppendSystemText(text, static_cast<u64>(length), path);
    return ESystemError::None;
}

u32 ResolveLinks(char16_t const* path, PathUnits& resolved)
{
    resolved.Clear();
    CSystemPath const systemPath(path);
    if (systemPath.GetError() != 0)
        return systemPath.GetError();
    char text[PATH_MAX];
    if (::realpath(systemPath.Get(), text) == nullptr)
        return LastSystemError();
    AppendSystemText(text, std::strlen(text), resolved);
    return ESystemError::None;
}

bool IsSameName(char16_t const* first, char16_t const* second, u64 count)
{
    return std::char_traits<char16_t>::compare(first, second, count) == 0;
}

} // namespace Velmor::Platform
