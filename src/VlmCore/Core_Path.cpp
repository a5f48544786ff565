#include "Core_Path.h"

#include "Core_FileError.h"

#include "platform/Platform_File.h"

#include <string>

namespace Velmor::Path {

namespace {

constexpr bool IsSeparator(char16_t unit)
{
    return unit == u'\\' || unit == u'/';
}

constexpr bool IsDriveLetter(char16_t unit)
{
    return (unit >= u'A' && unit <= u'Z') || (unit >= u'a' && unit <= u'z');
}

void AppendUnits(PathUnits& target, char16_t const* units, u64 count)
{
    u64 const needed = target.GetCount() + count;
    if (needed > target.GetCapacity())
        target.Reserve(needed + needed / 2);
    for (u64 index = 0; index < count; ++index)
        target.Append(units[index]);
}

void AppendTerminated(PathUnits& target, char16_t const* units)
{
    AppendUnits(target, units, std::char_traits<char16_t>::length(units) + 1);
}

// Units of the part of a full path that no dot-dot leaves: "C:\" or "\"; all of a path that begins with two.
u64 GetRootCount(char16_t const* path, u64 count)
{
    if (count >= 2 && path[0] == u'\\' && path[1] == u'\\')
        return count;
    if (count >= 3 && IsDriveLetter(path[0]) && path[1] == u':' && IsSeparator(path[2]))
        return 3;
    return count >= 1 && IsSeparator(path[0]) ? 1 : 0;
}

bool IsDots(char16_t const* part, u64 count, u64 dots)
{
    return count == dots && part[0] == u'.' && part[count - 1] == u'.';
}

// The count without the last part, which ends in a separator.
u64 DropLastPart(char16_t const* units, u64 rootCount, u64 count)
{
    if (count > rootCount)
        --count;
    while (count > rootCount && units[count - 1] != u'\\')
        --count;
    return count;
}

// The source that the system makes absolute: documents folder for the tilde; "" and "X:" are roots.
PathUnits ExpandSource(char16_t const* path)
{
    PathUnits source;
    if (path[0] == u'~') {
        Platform::GetDocumentsFolder(source);
        ++path;
    }
    AppendTerminated(source, path);
    u64 const count = source.GetCount() - 1;
    if (count == 0 || (count == 2 && IsDriveLetter(source[0]) && source[1] == u':')) {
        source[count] = u'\\';
        source.Append(u'\0');
    }
    return source;
}

} // namespace

CWideText::CWideText(CString const& text)
{
    if (text.GetData() == nullptr)
        return;
    void const* data = text.GetData();
    if (text.GetEncoding() != EStringEncoding::UTF16) {
        m_converted = text.ToUTF16();
        data = m_converted.GetData();
    }
    if (data == nullptr)
        return;
    m_units = static_cast<char16_t const*>(data);
    m_count = std::char_traits<char16_t>::length(m_units);
}

void ResolveDotParts(PathUnits& path)
{
    char16_t* const units = path.GetData();
    u64 const count = path.GetCount();
    u64 const rootCount = GetRootCount(units, count);
    if (rootCount != 0 && IsSeparator(units[rootCount - 1]))
        units[rootCount - 1] = u'\\';
    if (rootCount == count)
        return;
    // Parts are written behind each other, each with its separator; the write position never passes the read position.
    u64 written = rootCount;
    bool endsInSeparator = true;
    for (u64 start = rootCount; start < count;) {
        u64 end = start;
        while (end < count && !IsSeparator(units[end]))
            ++end;
        u64 const partCount = end - start;
        endsInSeparator = end < count;
        if (partCount != 0 && IsDots(units + start, partCount, 2)) {
            written = DropLastPart(units, rootCount, written);
        }
        else if (partCount != 0 && !IsDots(units + start, partCount, 1)) {
            for (u64 index = start; index < end; ++index)
                units[written++] = units[index];
            if (end < count)
                units[written++] = u'\\';
        }
        start = end + 1;
    }
    if (!endsInSeparator && written > rootCount && units[written - 1] == u'\\')
        --written;
    path.Resize(written);
}

PathUnits Normalize(char16_t const* path)
{
    PathUnits const source = ExpandSource(path);
    PathUnits full;
    RaiseFileError(Platform::MakeAbsolutePath(source.GetData(), full));
    ResolveDotParts(full);
    full.Append(u'\0');
    return full;
}

PathUnits Normalize(CString const& path)
{
    return Normalize(CWideText(path).Get());
}

PathUnits NormalizeJoined(CString const& folder, CString const& path)
{
    CWideText const wideFolder(folder);
    CWideText const widePath(path);
    PathUnits joined;
    AppendUnits(joined, wideFolder.Get(), wideFolder.GetCount());
    joined.Append(u'\\');
    AppendTerminated(joined, widePath.Get());
    return Normalize(joined.GetData());
}

bool DropTrailingSeparators(PathUnits& path)
{
    u64 const count = path.GetCount() - 1;
    // Of a path that begins with two backslashes everything but the last separator counts.
    u64 const rootCount = count >= 2 && path[0] == u'\\' && path[1] == u'\\' ? 2 : GetRootCount(path.GetData(), count);
    u64 kept = count;
    while (kept > rootCount && path[kept - 1] == u'\\')
        --kept;
    if (kept == count)
        return false;
    path.Resize(kept);
    path.Append(u'\0');
    return true;
}

bool IsWithin(PathUnits const& folder, PathUnits const& path)
{
    u64 const count = folder.GetCount() - 1;
    if (path.GetCount() - 1 < count || !Platform::IsSameName(folder.GetData(), path.GetData(), count))
        return false;
    return path[count] == 0 || path[count] == u'\\' || (count != 0 && folder[count - 1] == u'\\');
}

bool NamesEntry(PathUnits path)
{
    // A root keeps its separator; a search of the system would not find it by its path.
    bool const mustBeFolder = DropTrailingSeparators(path) || path[path.GetCount() - 2] == u'\\';
    return mustBeFolder ? Platform::FolderExists(path.GetData()) : Platform::EntryExists(path.GetData());
}

SFileName Split(CString const& path)
{
    CWideText const wide(path);
    char16_t const* const units = wide.Get();
    u64 const count = wide.GetCount();
    u64 nameStart = 0;
    u64 dot = count;
    for (u64 index = 0; index < count; ++index) {
        if (units[index] == u'\\') {
            nameStart = index + 1;
            dot = count;
        }
        else if (units[index] == u'.') {
            dot = index;
        }
    }
    auto const part = [units](u64 start, u64 end) {
        PathUnits copy;
        AppendUnits(copy, units + start, end - start);
        copy.Append(u'\0');
        return CMutableString(ViewOf(copy));
    };
    SFileName parts;
    if (nameStart != 0)
        parts.folder = part(0, nameStart - 1);
    parts.name = part(nameStart, dot);
    if (dot < count)
        parts.extension = part(dot + 1, count);
    return parts;
}

} // namespace Velmor::Path
