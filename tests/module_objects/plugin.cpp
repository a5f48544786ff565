#include "Plugin.h"
#include "../support/PluginEntry.h"

#include <vlmcore/memory.h>

#include <cstring>

using namespace Velmor;

namespace {

TResourcePtr<IFile> g_kept;

// An archive of the plugin's own: one file, made anew at each opening.
class CPluginArchive : public IArchive {
public:
    TResourcePtr<IFile> OpenFile(CString const& path, EFileOpen::Type) override
    {
        TResourcePtr<IFile> file = MakeResource<CMemoryFile>(path);
        file->Write("archived", 8);
        file->Seek(ESeek::Begin, 0);
        return file;
    }
    void List(CString const&, TVector<CMutableString, 1>& files, TVector<CMutableString, 1>&) const override
    {
        files.Append(CMutableString("plugin.txt"));
    }
    [[nodiscard]] bool Contains(CString const& path) const override { return path == "plugin.txt"; }
    [[nodiscard]] IString const& GetName() const override { return m_name; }

private:
    CString m_name = "plugin";
};

constexpr PluginTest::SPlugin Plugin = {
    [](void* hooks) {
        if (!Memory::IsInitialized()) // with the host's library the heap is there already
            Memory::InitFromExternal(hooks);
    },
    [](TResourcePtr<IFile>& file) {
        file = MakeResource<CMemoryFile>("plugin\\made.txt");
        file->Write("from the plugin", 15);
    },
    [](TResourcePtr<IFile> const& file) { g_kept = file; },
    [](IFile& file) { return file.Write("written", 7); },
    []() -> IArchive* {
        static CPluginArchive archive;
        return &archive;
    },
    [](IWeakTypeStorage& storage) {
        storage["number"] = 7;
        storage["text"] = "of the plugin";
        storage["copy"] = storage["text"] + CWeakType(true);
        storage.Unregister("number");
    },
    [](CWeakType& value) { value = "a text of the plugin"; },
    [] {
        CFolderArchive archive(".");
        static_cast<void>(archive.OpenFile("no-such-file", EFileOpen::Read));
    },
    [] { throw CPinnedTypeException(VlmWeakTypeBoolean, VlmWeakTypeString); },
    [](IFile& file) {
        CXMLStream stream;
        ReadXML(file, stream);
    },
    [] {
        CMemoryFile file("x");
        file.Write("x", ~u64{0});
    },
    [](void (*action)(), EFileError::Type kind, char const* text) {
        try {
            action();
        }
        catch (CFileException const& error) {
            return error.GetFileError() == kind && error.GetText() == text && error.GetKind() == CException::FileKind;
        }
        return false;
    },
};

} // namespace

VLMCORE_TEST_PLUGIN(Plugin)
