/// \file
/// Seam: the resources of the executable of this process.
///
/// Windows: what the resource compiler linked into it. Posix: compiled resource files (.res) that the build linked in
/// (cmake/VlmCoreResources.cmake), found through notes in the loaded program; a search there follows the rules that
/// Windows has: names without regard to case, "#12" for the number 12, the neutral language first. Resource memory
/// lives as long as the process. Any thread.
#pragma once

#include <vlmcore/types.h>

namespace Velmor::Platform {

/// Type of a resource: a name, or, while that is null, a number.
struct SResourceType {
    u16 number = 0;
    char16_t const* name = nullptr;
};

/// The system's mark of a found resource; null for none.
using ResourceMark = void const*;

/// Finds the resource `id` of a type.
[[nodiscard]] ResourceMark LocateResource(SResourceType const& type, u16 id);

/// The bytes of a found resource. A system error number.
[[nodiscard]] u32 AccessResource(ResourceMark mark, void const*& data, u32& size);

/// Receives one resource; the type's name is valid during the call only. Must not throw.
using VisitResource = void (*)(void* context, SResourceType const& type, u16 id);

/// Calls `visit` for each resource with a number for a name, once whatever its languages: named types first, then
/// numbers upwards, ids upwards.
void VisitResources(VisitResource visit, void* context);

} // namespace Velmor::Platform
