#include "../Platform_Resource.h"

#include "../Platform_SystemError.h"
#include "Windows_Path.h"

#include <windows.h>

namespace Velmor::Platform {

// ---- search ----

namespace {

wchar_t const* SystemType(SResourceType const& type)
{
    return type.name != nullptr ? AsWide(type.name) : MAKEINTRESOURCEW(type.number);
}

HRSRC SystemMark(ResourceMark mark)
{
    return static_cast<HRSRC>(const_cast<void*>(mark));
}

} // namespace

ResourceMark LocateResource(SResourceType const& type, u16 id)
{
    return ::FindResourceW(nullptr, MAKEINTRESOURCEW(id), SystemType(type));
}

u32 AccessResource(ResourceMark mark, void const*& data, u32& size)
{
    HGLOBAL const loaded = ::LoadResource(nullptr, SystemMark(mark));
    if (loaded == nullptr)
        return ::GetLastError();
    data = ::LockResource(loaded);
    size = ::SizeofResource(nullptr, SystemMark(mark));
    return ESystemError::None;
}

// ---- enumeration ----

namespace {

struct SVisit {
    VisitResource visit;
    void* context;
};

BOOL CALLBACK OnName(HMODULE, wchar_t const* type, wchar_t* name, LONG_PTR parameter)
{
    if (!IS_INTRESOURCE(name))
        return TRUE;
    SVisit const& visit = *reinterpret_cast<SVisit const*>(parameter);
    SResourceType visited;
    if (IS_INTRESOURCE(type))
        visited.number = static_cast<u16>(reinterpret_cast<ULONG_PTR>(type));
    else
        visited.name = AsUnits(type);
    visit.visit(visit.context, visited, static_cast<u16>(reinterpret_cast<ULONG_PTR>(name)));
    return TRUE;
}

BOOL CALLBACK OnType(HMODULE module, wchar_t* type, LONG_PTR parameter)
{
    ::EnumResourceNamesW(module, type, &OnName, parameter);
    return TRUE;
}

} // namespace

void VisitResources(VisitResource visit, void* context)
{
    SVisit parameter{visit, context};
    ::EnumResourceTypesW(nullptr, &OnType, reinterpret_cast<LONG_PTR>(&parameter));
}

} // namespace Velmor::Platform
