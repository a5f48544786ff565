// File names between the program's UTF-8 and what the library takes to the system.
//
// The library hands UTF-16 names to the system unchanged, while its own UTF-8 keeps characters beyond U+FFFF in a form
// of its own. So names are converted here, by the standard rules.
#pragma once

#include <vlmcore/vlmcore.h>

// UTF-16. A byte that is no UTF-8 becomes the lone surrogate that the library reads as that byte.
[[nodiscard]] Velmor::CMutableString ToSystemName(Velmor::CString const& utf8);

// The way back: UTF-8, bytes that are none included. Wants UTF-16.
[[nodiscard]] Velmor::CMutableString FromSystemName(Velmor::CString const& utf16);
