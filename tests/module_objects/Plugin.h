// What the plugin offers its host: the table of functions behind its entry.
#pragma once

#include <vlmcore/archives.h>
#include <vlmcore/weak_types.h>
#include <vlmcore/xml_stream.h>

namespace PluginTest {

struct SPlugin {
    void (*adopt)(void* hooks);

    void (*makeFile)(Velmor::TResourcePtr<Velmor::IFile>& file);
    void (*keepFile)(Velmor::TResourcePtr<Velmor::IFile> const& file);
    Velmor::u64 (*writeFile)(Velmor::IFile& file);
    Velmor::IArchive* (*getArchive)();

    void (*fillStorage)(Velmor::IWeakTypeStorage& storage);
    void (*makeText)(Velmor::CWeakType& value);

    void (*throwFileError)();
    void (*throwTypeError)();
    void (*throwXMLError)(Velmor::IFile& file);
    void (*throwWantOfMemory)();
    // Calls back; true when what that threw arrived as a CFileException of this kind and text.
    bool (*catchFileError)(void (*action)(), Velmor::EFileError::Type kind, char const* text);
};

} // namespace PluginTest
