// markforge::keyname: resolution through the registry's generator, who owns
// what the generator returns, and the two out-of-range cases.
#include <gtest/gtest.h>

#include <cstring>
#include <stdexcept>

#include "keyname.h"
#include "lbSteps.h"
#include "openedObject.h"
#include "testSupport.h"

using markforge::keyname;
using testsupport::TrailLines;

namespace {

// What the test generator hands out next, and what it was called with.
struct GeneratorScript {
    enum class Answer { Names, Null, Empty };
    Answer answer = Answer::Names;
    std::vector<std::string> names;
    int calls = 0;
    std::string receivedName;
    bool receivedFlag = false;
    // An empty array is not released by keyname; the test releases it.
    char** emptyArray = nullptr;
};
GeneratorScript script;

char* NewString(const std::string& text)
{
    char* copy = new char[text.size() + 1];
    std::memcpy(copy, text.c_str(), text.size() + 1);
    return copy;
}

char** TestGenerator(const char* name, bool flag)
{
    ++script.calls;
    script.receivedName = name;
    script.receivedFlag = flag;
    switch (script.answer) {
    case GeneratorScript::Answer::Null:
        return nullptr;
    case GeneratorScript::Answer::Empty:
        script.emptyArray = new char*[1]{nullptr};
        return script.emptyArray;
    case GeneratorScript::Answer::Names:
        break;
    }
    char** array = new char*[script.names.size() + 1];
    for (size_t i = 0; i < script.names.size(); ++i) array[i] = NewString(script.names[i]);
    array[script.names.size()] = nullptr;
    return array;
}

// A program object that opens a keyname the checked way, as the signer does.
class Opener : public lbBase {
public:
    Opener() { LB_CONSTRUCTOR(); }
    bool OpenAndClose(keyname& names, const std::string& name)
    {
        LB_FUNCTION("bool Opener::OpenAndClose(markforge::keyname&, const string&)");
        LB_OPEN_WITH(names, names.Open(name, true));
        LB_CLOSE(names);
        return true;
    }
};

const char* const NO_GENERATOR = "Invalid function: markforgeRegistry->mfPluginKeynameGenerator ";
const char* const OPEN_TEXT = "bool markforge::keyname::Open(const string&, bool)";

class KeynameTest : public testsupport::FrameworkTest {
protected:
    void SetUp() override
    {
        FrameworkTest::SetUp();
        script = GeneratorScript();
        registry = markforgeRegistryRecord();
        registry.mfPluginKeynameGenerator = &TestGenerator;
        markforgeRegistry = &registry;
    }
    void TearDown() override
    {
        markforgeRegistry = nullptr;
        delete[] script.emptyArray;
        script.emptyArray = nullptr;
        FrameworkTest::TearDown();
    }

    // Open with the generator answering `answer`: false, after one call,
    // with neither the flag nor the trail touched.
    void ExpectSilentFailure(GeneratorScript::Answer answer)
    {
        script.answer = answer;
        keyname names;
        EXPECT_FALSE(names.Open("k", true));
        EXPECT_EQ(script.calls, 1);
        EXPECT_FALSE(lbGlobal.errorFlag);
        EXPECT_TRUE(lbGlobal.trail.empty());
    }

    // Open without a generator to call: false, the flag raised, and the
    // missing generator as the only entry.
    void ExpectMissingGenerator()
    {
        keyname names;
        EXPECT_FALSE(names.Open("k", true));
        EXPECT_TRUE(lbGlobal.errorFlag);
        EXPECT_EQ(TrailLines(),
                  (std::vector<std::string>{std::string(OPEN_TEXT) + "|libmarkforge/keyname.cpp|" + NO_GENERATOR}));
    }

    markforgeRegistryRecord registry;
};

}  // namespace

TEST_F(KeynameTest, ThreeNamesAreKeptInOrderAndTheFirstIsTheKeyName)
{
    script.names = {"/keys/first.key", "second", "third"};
    keyname names;
    ASSERT_TRUE(names.Open("release", true));
    std::string out;
    EXPECT_TRUE(names.GetKeyName(out));
    EXPECT_EQ(out, "/keys/first.key");
    for (uint32_t i = 0; i < 3; ++i) {
        EXPECT_TRUE(names.GetKeyNameById(i, out));
        EXPECT_EQ(out, script.names[i]);
    }
    EXPECT_TRUE(names.Close());
    EXPECT_FALSE(lbGlobal.errorFlag);
    EXPECT_TRUE(lbGlobal.trail.empty());
}

TEST_F(KeynameTest, IndexEqualToTheCountThrowsOutOfRange)
{
    script.names = {"a", "b", "c"};
    keyname names;
    ASSERT_TRUE(names.Open("k", true));
    std::string out = "untouched";
    EXPECT_THROW(names.GetKeyNameById(3, out), std::out_of_range);
    EXPECT_EQ(out, "untouched");
    EXPECT_FALSE(lbGlobal.errorFlag);
}

TEST_F(KeynameTest, IndexAboveTheCountReturnsFalseQuietly)
{
    script.names = {"a", "b", "c"};
    keyname names;
    ASSERT_TRUE(names.Open("k", true));
    std::string out = "untouched";
    EXPECT_FALSE(names.GetKeyNameById(4, out));
    EXPECT_FALSE(names.GetKeyNameById(0xFFFFFFFF, out));
    EXPECT_EQ(out, "untouched");
    EXPECT_FALSE(lbGlobal.errorFlag);
    EXPECT_TRUE(lbGlobal.trail.empty());
}

TEST_F(KeynameTest, IndexTwoOfThreeIsTheThirdName)
{
    script.names = {"a", "b", "c"};
    keyname names;
    ASSERT_TRUE(names.Open("k", true));
    std::string out;
    EXPECT_TRUE(names.GetKeyNameById(2, out));
    EXPECT_EQ(out, "c");
}

TEST_F(KeynameTest, GeneratorGetsTheNameAndTheFlagUnchanged)
{
    script.names = {"x"};
    keyname names;
    ASSERT_TRUE(names.Open("my-key", true));
    EXPECT_EQ(script.receivedName, "my-key");
    EXPECT_TRUE(script.receivedFlag);
    ASSERT_TRUE(names.Open("other", false));
    EXPECT_EQ(script.receivedName, "other");
    EXPECT_FALSE(script.receivedFlag);
}

TEST_F(KeynameTest, EmbeddedZeroEndsTheNameTheGeneratorSees)
{
    script.names = {"x"};
    keyname names;
    ASSERT_TRUE(names.Open(std::string("abc\0def", 7), true));
    EXPECT_EQ(script.receivedName, "abc");
}

TEST_F(KeynameTest, SecondOpenAppendsAfterTheFirstNames)
{
    keyname names;
    script.names = {"one", "two"};
    ASSERT_TRUE(names.Open("k", true));
    script.names = {"three"};
    ASSERT_TRUE(names.Open("k", true));
    std::string out;
    EXPECT_TRUE(names.GetKeyName(out));
    EXPECT_EQ(out, "one");
    EXPECT_TRUE(names.GetKeyNameById(2, out));
    EXPECT_EQ(out, "three");
    EXPECT_THROW(names.GetKeyNameById(3, out), std::out_of_range);
}

TEST_F(KeynameTest, NullAnswerFailsSilently)
{
    ExpectSilentFailure(GeneratorScript::Answer::Null);
}

TEST_F(KeynameTest, EmptyArrayFailsSilently)
{
    ExpectSilentFailure(GeneratorScript::Answer::Empty);
}

TEST_F(KeynameTest, EmptyArrayMakesTheCallersCheckedOpenFail)
{
    script.answer = GeneratorScript::Answer::Empty;
    keyname names;
    Opener opener;
    EXPECT_FALSE(opener.OpenAndClose(names, "k"));
    EXPECT_TRUE(lbGlobal.errorFlag);
    EXPECT_EQ(TrailLines(), (std::vector<std::string>{"bool Opener::OpenAndClose(markforge::keyname&, const string&)|"
                                                      "tests/libmarkforge/keyname_test.cpp|Object Open() routine failed."}));
    EXPECT_FALSE(names.IsOpen());
}

TEST_F(KeynameTest, CheckedOpenAndCloseSucceedWithNames)
{
    script.names = {"k1"};
    keyname names;
    Opener opener;
    EXPECT_TRUE(opener.OpenAndClose(names, "k"));
    EXPECT_FALSE(names.IsOpen());
    std::string out;
    EXPECT_TRUE(names.GetKeyName(out));
    EXPECT_EQ(out, "k1");
    EXPECT_TRUE(lbGlobal.trail.empty());
}

TEST_F(KeynameTest, MissingGeneratorIsRecordedAndRaisesTheFlag)
{
    registry.mfPluginKeynameGenerator = nullptr;
    ExpectMissingGenerator();
}

TEST_F(KeynameTest, MissingGeneratorStopsEveryLaterCheckedStep)
{
    registry.mfPluginKeynameGenerator = nullptr;
    keyname names;
    Opener opener;
    EXPECT_FALSE(opener.OpenAndClose(names, "k"));
    registry.mfPluginKeynameGenerator = &TestGenerator;
    script.names = {"late"};
    keyname later;
    EXPECT_FALSE(later.Open("k", true));
    EXPECT_EQ(script.calls, 0);
    EXPECT_EQ(TrailLines(),
              (std::vector<std::string>{
                  std::string(OPEN_TEXT) + "|libmarkforge/keyname.cpp|" + NO_GENERATOR,
                  "bool Opener::OpenAndClose(markforge::keyname&, const string&)|tests/libmarkforge/keyname_test.cpp|"
                  "Object Open() routine failed.",
                  std::string(OPEN_TEXT) + "|libmarkforge/keyname.cpp|Unable to continue from previous error"}));
}

TEST_F(KeynameTest, MissingRegistryCountsAsMissingGenerator)
{
    markforgeRegistry = nullptr;
    ExpectMissingGenerator();
}

TEST_F(KeynameTest, RaisedFlagStopsBeforeTheGeneratorIsCalled)
{
    script.names = {"x"};
    lbGlobal.errorFlag = true;
    keyname names;
    EXPECT_FALSE(names.Open("k", true));
    EXPECT_EQ(script.calls, 0);
    EXPECT_EQ(TrailLines(), (std::vector<std::string>{std::string(OPEN_TEXT) +
                                                      "|libmarkforge/keyname.cpp|Unable to continue from previous error"}));
}

TEST_F(KeynameTest, DestroyedWhileOpenIsReported)
{
    script.names = {"x"};
    testsupport::ExpectReportedWhenDestroyedOpen<keyname>(
        [](keyname& names) { return names.Open("k", true); },
        "virtual markforge::keyname::~keyname()|libmarkforge/keyname.h|"
        "Object ( markforge::keyname ) was not closed before going out of scope. ");
}
