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

// ---- resource paths ----

// What tests/resources/sample.rc puts into this program: a number, or a name in capitals, and an id.
struct SResource {
    u16 number;
    char16_t const* name;
    u16 id;
};

constexpr SResource Resources[] = {
    {10, u"", 7}, {10, u"", 42}, {10, u"", 101}, {23, u"", 1},        {23, u"", 8},
    {24, u"", 6}, {25, u"", 5},  {77, u"", 12},  {0, u"MYDATA", 300}, {0, u"OTHER", 65535},
};

struct SNamedKind {
    char16_t const* name;
    u16 number;
};

constexpr SNamedKind NamedKinds[] = {{u"CURSOR", 1},     {u"BITMAP", 2},   {u"ICON", 3},
                                     {u"STRING", 6},     {u"FONT", 8},     {u"RCDATA", 10},
                                     {u"ANICURSOR", 21}, {u"ANIICON", 22}, {u"HTML", 23}};

// Numbers are read by the rules of the strings, which have a target of their own.
u16 ToNumber(std::u16string const& text)
{
    return static_cast<u16>(CString(text).ToUnsignedInteger(EBinaryEncoding::BigEndian));
}

bool IsThere(u16 number, std::u16string const& name, u16 id)
{
    for (SResource const& resource : Resources)
        if (resource.number == number && resource.name == name && resource.id == id)
            return true;
    return false;
}

// The grammar, step by step: a colon, the type, the first slash, the id.
bool IsResource(std::u16string const& path)
{
    std::size_t const slash = path.find(u'/');
    std::u16string const type = path.substr(1, slash == std::u16string::npos ? slash : slash - 1);
    u16 const id = slash == std::u16string::npos ? u16{0} : ToNumber(path.substr(slash + 1));
    if (u16 const number = ToNumber(type); number != 0)
        return IsThere(number, u"", id);
    for (SNamedKind const& kind : NamedKinds)
        if (type == kind.name)
            return IsThere(kind.number, u"", id);
    // The system's part: "#" and decimal digits are a number, other names are found whatever their case.
    std::size_t const digits = type.find_first_not_of(u"0123456789", 1);
    if (type.size() > 1 && type[0] == u'#' && digits == std::u16string::npos) {
        u32 number = 0;
        for (std::size_t index = 1; index < type.size() && number <= 0xFFFF; ++index)
            number = number * 10 + (type[index] - u'0');
        return number <= 0xFFFF && IsThere(static_cast<u16>(number), u"", id);
    }
    std::u16string name;
    for (char16_t const unit : type)
        name += unit >= u'a' && unit <= u'z' ? static_cast<char16_t>(unit - u'a' + u'A') : unit;
    return !name.empty() && IsThere(0, name, id);
}

void CheckResourcePath(CString const& path, bool isThere)
{
    CResourceArchive archive;
    Check(archive.Contains(path) == isThere);
    TResourcePtr<IFile> const file = archive.OpenFile(path, EFileOpen::Read);
    Check((file.Get() != nullptr) == isThere);
    if (isThere) {
        Check(file->GetFileName() == path);
        return;
    }
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
        CheckResourcePath(CString(resource), IsResource(resource));
    }
    // Bytes that are no UTF-8 become what the strings make of them; the path is that text.
    CMutableString const wide8 = CString(bytes).ToUTF16();
    CheckResourcePath(CString(bytes), IsResource(Units(wide8)));
    return 0;
}
