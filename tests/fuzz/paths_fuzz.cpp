// Path normalisation against a plain reading of the rules, splitting against its definition, and resource paths against
// their grammar.
#include "Core_Path.h"

#include <vlmcore/archives.h>
#include <vlmcore/memory.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

using namespace Velmor;

namespace {

void Check(bool condition)
{
    if (!condition)
        std::abort();
}

bool IsSeparator(char16_t unit)
{
    return unit == u'\\' || unit == u'/';
}

// The rules, part by part, on a path below the root "\".
std::u16string PlainResolve(std::u16string const& path)
{
    std::vector<std::u16string> parts;
    std::u16string part;
    for (std::size_t index = 1; index <= path.size(); ++index) {
        if (index < path.size() && !IsSeparator(path[index])) {
            part += path[index];
            continue;
        }
        if (part == u"..") {
            if (!parts.empty())
                parts.pop_back();
        }
        else if (!part.empty() && part != u".") {
            parts.push_back(part);
        }
        part.clear();
    }
    std::u16string result;
    for (std::u16string const& kept : parts)
        result += u'\\' + kept;
    if (result.empty() || IsSeparator(path.back()))
        result += u'\\';
    return result;
}

void CheckResolve(std::u16string const& text)
{
    std::u16string const path = u'\\' + text;
    if (path.size() >= 2 && path[1] == u'\\')
        return; // left as it is
    Path::PathUnits units;
    for (char16_t const unit : path)
        units.Append(unit);
    Path::ResolveDotParts(units);
    std::u16string const resolved(units.GetData(), units.GetData() + units.GetCount());
    Check(resolved == PlainResolve(path));
    Path::ResolveDotParts(units);
    Check(resolved == std::u16string(units.GetData(), units.GetData() + units.GetCount()));
}

std::u16string Units(CString const& text)
{
    return text.GetData() == nullptr ? std::u16string() : static_cast<char16_t const*>(text.GetData());
}

// The parts joined again are the path.
void CheckSplit(std::u16string const& text)
{
    SFileName const parts = Path::Split(CString(text));
    std::u16string const folder = Units(parts.folder);
    std::u16string const name = Units(parts.name);
    std::u16string const extension = Units(parts.extension);
    Check(name.find(u'\\') == std::u16string::npos && extension.find(u'\\') == std::u16string::npos);
    Check(extension.find(u'.') == std::u16string::npos);
    std::u16string joined = text.find(u'\\') == std::u16string::npos ? name : folder + u'\\' + name;
    if (joined.size() < text.size())
        joined += u'.' + extension;
    Check(joined == text);
}

// No resource is there, so every resource path is a miss, and none is anything else.
void CheckResourcePath(CString const& path)
{
    CResourceArchive archive;
    Check(!archive.Contains(path));
    Check(!archive.OpenFile(path, EFileOpen::Read));
    try {
        (void)archive.OpenFile(path, EFileOpen::Read | EFileOpen::ThrowIfMissing);
        Check(false);
    }
    catch (CFileException const& error) {
        Check(error.GetFileError() == EFileError::NotFound);
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(unsigned char const* data, std::size_t size)
{
    static bool const initialized = [] {
        Memory::Initialize(0, 0);
        return true;
    }();
    Check(initialized);
    std::u16string wide;
    for (std::size_t index = 0; index + 1 < size; index += 2)
        if (char16_t const unit = static_cast<char16_t>(data[index] | data[index + 1] << 8); unit != 0)
            wide += unit;
    std::u16string narrow;
    std::string bytes = ":";
    for (std::size_t index = 0; index < size; ++index)
        if (data[index] != 0) {
            narrow += static_cast<char16_t>(data[index]);
            bytes += static_cast<char>(data[index]);
        }
    for (std::u16string const& text : {wide, narrow}) {
        CheckResolve(text);
        CheckSplit(text);
        std::u16string const resource = u':' + text;
        CheckResourcePath(CString(resource));
    }
    CheckResourcePath(CString(bytes));
    return 0;
}
