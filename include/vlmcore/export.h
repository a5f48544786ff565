/// \file
/// How names leave the library, and the compiler attributes the public headers share.
///
/// Hosts that link the static library define `VLMCORE_STATIC` (the CMake target VlmCoreStatic does it for
/// them). Nothing else here is for hosts.
#pragma once

#if defined(VLMCORE_STATIC)
#  define VLM_API
#elif defined(_WIN32)
#  if defined(VLMCORE_BUILDING)
#    define VLM_API __declspec(dllexport)
#  else
#    define VLM_API __declspec(dllimport)
#  endif
#else
#  define VLM_API __attribute__((visibility("default")))
#endif

/// Lets the compiler check a printf-style call: both numbers count parameters from 1, an implicit `this` included.
#if defined(__clang__)
#  define VLM_PRINTF(formatIndex, firstArgument) __attribute__((format(printf, formatIndex, firstArgument)))
#elif defined(__GNUC__)
#  define VLM_PRINTF(formatIndex, firstArgument) __attribute__((format(gnu_printf, formatIndex, firstArgument)))
#else
#  define VLM_PRINTF(formatIndex, firstArgument)
#endif
