// A module of the system's, without help of the library's.
#pragma once

namespace LateLoad {

/// Loads the file of that name beside the test program, which runs in its folder; null when it cannot be loaded, with
/// the system's reason on standard error.
void* Open(char const* fileName);
void* FindFunction(void* module, char const* name);
void Close(void* module);

} // namespace LateLoad
