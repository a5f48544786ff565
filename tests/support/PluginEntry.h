/// \file
/// How the plugins of the tests show themselves to their host: one exported function, of the same name in all of them,
/// that gives a table of functions. What is in the table is for plugin and test to agree on.
#pragma once

namespace TestSupport {

/// The name of the function.
inline constexpr char PluginEntry[] = "GetTestPlugin";

} // namespace TestSupport

#if defined(__ELF__)
#  define VLMCORE_TEST_PLUGIN_EXPORT __attribute__((visibility("default")))
#else
#  define VLMCORE_TEST_PLUGIN_EXPORT __declspec(dllexport)
#endif

/// Defines the function, once in a plugin, outside of namespaces; `table` is an object of static lifetime.
#define VLMCORE_TEST_PLUGIN(table)                                                                                     \
    extern "C" VLMCORE_TEST_PLUGIN_EXPORT decltype(table)* GetTestPlugin();                                            \
    extern "C" VLMCORE_TEST_PLUGIN_EXPORT decltype(table)* GetTestPlugin()                                             \
    {                                                                                                                  \
        return &(table);                                                                                               \
    }
