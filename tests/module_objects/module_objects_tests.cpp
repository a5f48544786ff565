// Objects that one module makes and another uses and ends, and exceptions that cross between them: a plugin with the
// static library inside, and one on the host's shared library.
#include "../Texts.h"
#include "../support/CountingHooks.h"
#include "../support/Files.h"
#include "../support/PluginModule.h"
#include "Plugin.h"

#include <string>

#include <gtest/gtest.h>

using namespace Velmor;
using TestSupport::ReadAll;
using Velmor::Test::CCountingHooks;
using VlmTest::Bytes;

namespace {

// The plugin on the host's heap.
class CPluginModule : public TestSupport::TPluginModule<PluginTest::SPlugin> {
public:
    explicit CPluginModule(std::string const& fileName) : TPluginModule(fileName)
    {
        (*this)->adopt(Memory::GetExternalHooks());
    }
};

class ModuleObjects : public ::testing::TestWithParam<char const*> {
protected:
    void SetUp() override
    {
        CCountingHooks::Reset();
        CCountingHooks::Initialize(EHeapFlag::Passthrough);
    }

    void TearDown() override
    {
        Memory::Deinitialize();
        EXPECT_EQ(CCountingHooks::GetLiveBlocks(), 1u); // the heap object
        EXPECT_EQ(CCountingHooks::GetForeignBlocks(), 0u);
    }

    [[nodiscard]] static std::string PluginName()
    {
        return std::string("objects_plugin_") + GetParam() + VLMCORE_PLUGIN_SUFFIX;
    }
};

} // namespace

INSTANTIATE_TEST_SUITE_P(Plugins, ModuleObjects, ::testing::Values("static", "shared"),
                         [](auto const& test) { return std::string(test.param); });

TEST_P(ModuleObjects, FilesLiveOnTheOtherSide)
{
    CPluginModule const plugin(PluginName());
    TResourcePtr<IFile> file;
    plugin->makeFile(file);
    EXPECT_EQ(file->GetRefCount(), 1);
    EXPECT_EQ(ReadAll(*file), "from the plugin");
    EXPECT_EQ(Bytes(file->GetFileName()), "made");
    file = nullptr; // the host ends the plugin's file

    file = MakeResource<CMemoryFile>("host.txt");
    EXPECT_EQ(plugin->writeFile(*file), 7u);
    plugin->keepFile(file);
    EXPECT_EQ(file->GetRefCount(), 2);
    EXPECT_EQ(ReadAll(*file), "written");
    file = nullptr;
    plugin->keepFile(file); // the plugin ends the host's
}

TEST_P(ModuleObjects, ArchivesStackAcrossModules)
{
    CPluginModule const plugin(PluginName());
    CArchiveCollection all("all");
    all.Add(*plugin->getArchive());
    EXPECT_TRUE(all.Contains("plugin.txt"));
    EXPECT_TRUE(all.Contains(u"plugin.txt"));
    EXPECT_EQ(ReadAll(*all.OpenFile("plugin.txt", EFileOpen::Read)), "archived");
    EXPECT_EQ(TestSupport::ListArchive<std::vector<std::string>>(all, "plugin.txt").files,
              (std::vector<std::string>{"plugin.txt"}));
    EXPECT_EQ(Bytes(all.archives[0]->GetName()), "plugin");
}

TEST_P(ModuleObjects, WeakTypesAreFilledThereAndFreedHere)
{
    CPluginModule const plugin(PluginName());
    CWeakTypeList list;
    CWeakTypeMap map;
    for (IWeakTypeStorage* const storage :
         {static_cast<IWeakTypeStorage*>(&list), static_cast<IWeakTypeStorage*>(&map)}) {
        plugin->fillStorage(*storage);
        EXPECT_EQ(storage->GetCount(), 2u);
        EXPECT_FALSE(storage->IsRegistered("number"));
        EXPECT_EQ(Bytes(storage->TryGet("text")->AsString()), "of the plugin");
        EXPECT_EQ(Bytes((*storage)["copy"].AsString()), "of the plugintrue");
    }
    map.GetVariables().CheckConsistency();
    CWeakType value("a text of the host");
    plugin->makeText(value);
    EXPECT_EQ(Bytes(value.AsString()), "a text of the plugin");
}

TEST_P(ModuleObjects, ExceptionsArriveAsWhatTheyAre)
{
    CPluginModule const plugin(PluginName());
    EXPECT_EQ(TestSupport::FileErrorOf([&] { plugin->throwFileError(); }), EFileError::NotFound);
    try {
        plugin->throwTypeError();
        ADD_FAILURE();
    }
    catch (CPinnedTypeException const& error) {
        EXPECT_EQ(Bytes(error.GetText()), "Type mismatch between Boolean and String.");
        EXPECT_EQ(Bytes(error.GetRightTypeName()), "String");
        CPinnedTypeException* const clone = error.Clone();
        EXPECT_EQ(Bytes(clone->GetLeftTypeName()), "Boolean");
        Memory::Delete(clone);
    }
    std::string const text = "<a b>";
    TResourcePtr<IFile> const file =
        MakeResource<CByteStreamFile>("a.xml", static_cast<void const*>(text.data()), text.size());
    try {
        plugin->throwXMLError(*file);
        ADD_FAILURE();
    }
    catch (CException const& error) {
        auto const* const xml = dynamic_cast<CXMLException const*>(&error);
        ASSERT_NE(xml, nullptr);
        EXPECT_EQ(xml->GetByteOffset(), 4u);
    }
    EXPECT_THROW(plugin->throwWantOfMemory(), std::bad_alloc);
    EXPECT_TRUE(plugin->catchFileError([] { throw CFileException("of the host", EFileError::Corrupt); },
                                       EFileError::Corrupt, "of the host"));
}
