// lbBase: the step patterns, the lifecycle, the destructor check and the
// trail dump, on small test classes and on the real recaster::converter.
#include <gtest/gtest.h>

#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "converter.h"
#include "lbBase.h"
#include "lbGlobal.h"
#include "lbSteps.h"
#include "testSupport.h"

namespace lbtest {

// The path every entry recorded in this file carries: relative to the
// repository root, never the build machine's absolute path.
constexpr const char* THIS_FILE = "tests/lockbase/lbBase_test.cpp";

// An object whose own opening and closing work does what the test asks.
class probe : public lbBase {
public:
    probe() { LB_CONSTRUCTOR(); constructorLine = __LINE__; }
    static constexpr int DESTRUCTOR_LINE = __LINE__ + 1;
    virtual ~probe() { LB_DESTRUCTOR_CHECK("virtual lbtest::probe::~probe()"); }

    bool Open() override
    {
        ++openCalls;
        // Re-records the opening at another line, so the caller's PostOpen
        // finds no matching PreOpen.
        if (spoilPostOpen) PreOpen("elsewhere.cpp", 1, nullptr);
        return openResult;
    }
    bool Close() override
    {
        ++closeCalls;
        // Closes itself completely, as a class that ends an embedded object
        // with Close() and PostClose() does; the caller's PostClose then
        // finds nothing open.
        if (closeMarksClosed) postCloseResult = PostClose();
        return closeResult;
    }
    // A class's own opening call with an argument, in place of Open().
    bool OpenWith(bool result)
    {
        ++openCalls;
        return result;
    }

    int line() const { return _line; }
    const std::string& typeName() const { return _type_name; }
    uint32_t firstWord() const { return _openCount; }
    uint32_t secondWord() const { return _closeCount; }
    void spoilTypeName() { _type_name = "not a mangled name"; }

    int constructorLine = 0;
    bool openResult = true;
    bool closeResult = true;
    bool spoilPostOpen = false;
    bool closeMarksClosed = false;
    bool postCloseResult = true;
    int openCalls = 0;
    int closeCalls = 0;
};

// Runs the step patterns on `this`; `stepLine` is the line of the last step
// that was reached, written on the same line as the step itself.
class driver : public lbBase {
public:
    driver() { LB_CONSTRUCTOR(); }
    virtual ~driver() { LB_DESTRUCTOR_CHECK("virtual lbtest::driver::~driver()"); }

    bool ContinueOnly()
    {
        LB_FUNCTION("bool lbtest::driver::ContinueOnly()");
        stepLine = __LINE__; LB_CONTINUE_CHECK();
        return true;
    }
    bool Call(bool result)
    {
        LB_FUNCTION("bool lbtest::driver::Call(bool)");
        stepLine = __LINE__; LB_CHECK(Callee(result));
        return true;
    }
    bool OpenIt(probe& object)
    {
        LB_FUNCTION("bool lbtest::driver::OpenIt(lbtest::probe&)");
        stepLine = __LINE__; LB_OPEN(object);
        return true;
    }
    bool OpenItWith(probe& object, bool result)
    {
        LB_FUNCTION("bool lbtest::driver::OpenItWith(lbtest::probe&, bool)");
        stepLine = __LINE__; LB_OPEN_WITH(object, object.OpenWith(result));
        return true;
    }
    bool OpenConverter(recaster::converter& object)
    {
        LB_FUNCTION("bool lbtest::driver::OpenConverter(recaster::converter&)");
        stepLine = __LINE__; LB_OPEN(object);
        return true;
    }
    bool CloseIt(lbBase& object)
    {
        LB_FUNCTION("bool lbtest::driver::CloseIt(lbBase&)");
        stepLine = __LINE__; LB_CLOSE(object);
        return true;
    }
    bool Inner()
    {
        LB_FUNCTION("bool lbtest::driver::Inner()");
        innerLine = __LINE__; LB_FAIL("inner step failed");
    }
    bool Middle()
    {
        LB_FUNCTION("bool lbtest::driver::Middle()");
        middleLine = __LINE__; LB_CHECK(Inner());
        return true;
    }
    bool Outer()
    {
        LB_FUNCTION("bool lbtest::driver::Outer()");
        outerLine = __LINE__; LB_CHECK(Middle());
        afterLine = __LINE__; LB_CONTINUE_CHECK();
        return true;
    }
    bool FailUnderTag()
    {
        LB_FUNCTION("bool lbtest::driver::FailUnderTag()");
        stepLine = __LINE__; LB_FAIL_AS("ShortTag", "conversion not supported");
    }
    bool RecordOnly()
    {
        LB_FUNCTION("bool lbtest::driver::RecordOnly()");
        stepLine = __LINE__; LB_RECORD("noted, not failed");
        return true;
    }

    int calleeCalls = 0;
    int stepLine = 0;
    int innerLine = 0, middleLine = 0, outerLine = 0, afterLine = 0;

private:
    bool Callee(bool result)
    {
        ++calleeCalls;
        return result;
    }
};

}  // namespace lbtest

namespace {

using lbtest::driver;
using lbtest::probe;
using lbtest::THIS_FILE;
using testsupport::FrameworkTest;
using Lines = std::vector<std::string>;

// Every trail entry as one line: "L|function|file|line", "M|text" or
// "O|file|line|opener", so a whole trail compares at once.
Lines Entries()
{
    Lines lines;
    for (const lbTrailEntry& entry : lbGlobal.trail) {
        switch (entry.kind) {
        case lbTrailEntry::Kind::Location:
            lines.push_back("L|" + entry.function + "|" + entry.file + "|" + std::to_string(entry.line));
            break;
        case lbTrailEntry::Kind::Message:
            lines.push_back("M|" + entry.text);
            break;
        case lbTrailEntry::Kind::OpenedBy:
            lines.push_back("O|" + entry.file + "|" + std::to_string(entry.line) + "|" + entry.text);
            break;
        }
    }
    return lines;
}

std::string At(const char* function, int line, const char* file = THIS_FILE)
{
    return std::string("L|") + function + "|" + file + "|" + std::to_string(line);
}

std::string Message(const std::string& text)
{
    return "M|" + text;
}

std::string OpenedBy(int line, const std::string& opener, const char* file = THIS_FILE)
{
    return std::string("O|") + file + "|" + std::to_string(line) + "|" + opener;
}

// The line of `needle` in a repository file, counted from 1; 0 when absent.
int LineOf(const std::string& repositoryPath, const std::string& needle)
{
    std::ifstream in(testsupport::DataPath("../../" + repositoryPath));
    std::string text;
    for (int number = 1; std::getline(in, text); ++number)
        if (text.find(needle) != std::string::npos) return number;
    return 0;
}

const char* const CONTINUE = "Unable to continue from previous error";
const char* const BOOLEAN = "Boolean return value failed.";

// The trail holds one step, `function`'s at `line` with `message`, and the
// flag is raised.
void ExpectOnlyStep(const char* function, int line, const std::string& message)
{
    EXPECT_EQ(Entries(), (Lines{At(function, line), Message(message)}));
    EXPECT_TRUE(lbGlobal.errorFlag);
}

using LbBaseTest = FrameworkTest;

TEST_F(LbBaseTest, SourcePathsAreRelativeToTheRepository)
{
    EXPECT_STREQ(__FILE__, THIS_FILE);
}

TEST_F(LbBaseTest, ConstructorStoresLineTypeAndClearsState)
{
    probe object;
    EXPECT_FALSE(object.IsOpen());
    EXPECT_EQ(object.line(), object.constructorLine);
    EXPECT_EQ(object.typeName(), typeid(probe).name());
    EXPECT_NE(object.typeName()[0], '*');
    EXPECT_EQ(object.firstWord(), 0u);
    EXPECT_EQ(object.secondWord(), 0u);
}

TEST_F(LbBaseTest, BaseOpenAndCloseSucceed)
{
    lbBase object;
    EXPECT_TRUE(object.Open());
    EXPECT_TRUE(object.Close());
}

TEST_F(LbBaseTest, ContinueCheckPassesWithFlagClear)
{
    driver d;
    EXPECT_TRUE(d.ContinueOnly());
    EXPECT_TRUE(lbGlobal.trail.empty());
    EXPECT_FALSE(lbGlobal.errorFlag);
}

TEST_F(LbBaseTest, ContinueCheckRecordsAndLeavesTheFlagSet)
{
    driver d;
    lbGlobal.errorFlag = true;
    EXPECT_FALSE(d.ContinueOnly());
    ExpectOnlyStep("bool lbtest::driver::ContinueOnly()", d.stepLine, CONTINUE);
}

TEST_F(LbBaseTest, CheckedCallPassesTrueThrough)
{
    driver d;
    EXPECT_TRUE(d.Call(true));
    EXPECT_EQ(d.calleeCalls, 1);
    EXPECT_TRUE(lbGlobal.trail.empty());
    EXPECT_FALSE(lbGlobal.errorFlag);
}

TEST_F(LbBaseTest, CheckedCallFailureRecordsAndRaisesTheFlag)
{
    driver d;
    EXPECT_FALSE(d.Call(false));
    ExpectOnlyStep("bool lbtest::driver::Call(bool)", d.stepLine, BOOLEAN);
}

TEST_F(LbBaseTest, CheckedCallAfterEarlierFailureDoesNotCall)
{
    driver d;
    lbGlobal.errorFlag = true;
    EXPECT_FALSE(d.Call(true));
    EXPECT_EQ(d.calleeCalls, 0);
    ExpectOnlyStep("bool lbtest::driver::Call(bool)", d.stepLine, CONTINUE);
}

TEST_F(LbBaseTest, CheckedOpenAndCloseRunTheWholeLifecycle)
{
    driver d;
    probe object;
    ASSERT_TRUE(d.OpenIt(object));
    EXPECT_TRUE(object.IsOpen());
    EXPECT_EQ(object.openCalls, 1);
    ASSERT_TRUE(d.CloseIt(object));
    EXPECT_FALSE(object.IsOpen());
    EXPECT_EQ(object.closeCalls, 1);
    EXPECT_TRUE(lbGlobal.trail.empty());
    EXPECT_FALSE(lbGlobal.errorFlag);
}

TEST_F(LbBaseTest, ObjectCanBeOpenedAgainAfterClosing)
{
    driver d;
    probe object;
    ASSERT_TRUE(d.OpenIt(object));
    ASSERT_TRUE(d.CloseIt(object));
    EXPECT_TRUE(d.OpenIt(object));
    EXPECT_TRUE(d.CloseIt(object));
    EXPECT_TRUE(lbGlobal.trail.empty());
}

TEST_F(LbBaseTest, CheckedOpenOfAnOpenObjectFailsAtPreOpen)
{
    driver d;
    probe object;
    ASSERT_TRUE(d.OpenIt(object));
    EXPECT_FALSE(d.OpenIt(object));
    EXPECT_EQ(object.openCalls, 1);
    ExpectOnlyStep("bool lbtest::driver::OpenIt(lbtest::probe&)", d.stepLine, "Object PreOpen() routine failed.");
    EXPECT_TRUE(object.IsOpen());
}

TEST_F(LbBaseTest, CheckedOpenWhoseOpenFailsRecordsAndLeavesTheObjectClosed)
{
    driver d;
    probe object;
    object.openResult = false;
    EXPECT_FALSE(d.OpenIt(object));
    ExpectOnlyStep("bool lbtest::driver::OpenIt(lbtest::probe&)", d.stepLine, "Object Open() routine failed.");
    EXPECT_FALSE(object.IsOpen());
}

TEST_F(LbBaseTest, CheckedOpenUsesTheClassesOwnOpeningCall)
{
    driver d;
    probe object;
    EXPECT_TRUE(d.OpenItWith(object, true));
    EXPECT_TRUE(object.IsOpen());
    ASSERT_TRUE(d.CloseIt(object));

    EXPECT_FALSE(d.OpenItWith(object, false));
    ExpectOnlyStep("bool lbtest::driver::OpenItWith(lbtest::probe&, bool)", d.stepLine,
                   "Object Open() routine failed.");
}

TEST_F(LbBaseTest, CheckedOpenAfterEarlierFailureTouchesNothing)
{
    driver d;
    probe object;
    lbGlobal.errorFlag = true;
    EXPECT_FALSE(d.OpenIt(object));
    EXPECT_EQ(object.openCalls, 0);
    EXPECT_FALSE(object.IsOpen());
    ExpectOnlyStep("bool lbtest::driver::OpenIt(lbtest::probe&)", d.stepLine, CONTINUE);
}

TEST_F(LbBaseTest, PostOpenWithoutPreOpenRecordsItsOwnFailure)
{
    probe object;
    EXPECT_FALSE(object.PostOpen(42));
    EXPECT_FALSE(object.IsOpen());
    EXPECT_TRUE(lbGlobal.errorFlag);
    ASSERT_EQ(lbGlobal.trail.size(), 2u);
    EXPECT_EQ(lbGlobal.trail[0].kind, lbTrailEntry::Kind::Location);
    EXPECT_EQ(lbGlobal.trail[0].file, "lockbase/lbBase.cpp");
    EXPECT_EQ(lbGlobal.trail[1].kind, lbTrailEntry::Kind::Message);
}

TEST_F(LbBaseTest, FailingPostOpenMakesTheCallerReturnFalseWithNoEntryOfItsOwn)
{
    driver d;
    probe object;
    object.spoilPostOpen = true;
    EXPECT_FALSE(d.OpenIt(object));
    EXPECT_FALSE(object.IsOpen());
    // Only PostOpen's own entries: the caller adds neither a location nor a
    // message.
    for (const lbTrailEntry& entry : lbGlobal.trail) {
        EXPECT_NE(entry.function, "bool lbtest::driver::OpenIt(lbtest::probe&)");
        EXPECT_NE(entry.text, "Object Open() routine failed.");
        EXPECT_NE(entry.text, "Object PreOpen() routine failed.");
        EXPECT_NE(entry.text, BOOLEAN);
    }
    const Lines lines = Entries();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0].rfind("L|bool lbBase::PostOpen(unsigned int)|lockbase/lbBase.cpp|", 0), 0u) << lines[0];
}

TEST_F(LbBaseTest, CheckedCloseOfAClosedObjectFailsAtPreClose)
{
    driver d;
    probe object;
    EXPECT_FALSE(d.CloseIt(object));
    EXPECT_EQ(object.closeCalls, 0);
    ExpectOnlyStep("bool lbtest::driver::CloseIt(lbBase&)", d.stepLine, BOOLEAN);
}

TEST_F(LbBaseTest, CheckedCloseWhoseCloseFailsLeavesTheObjectOpen)
{
    driver d;
    probe object;
    ASSERT_TRUE(d.OpenIt(object));
    object.closeResult = false;
    EXPECT_FALSE(d.CloseIt(object));
    ExpectOnlyStep("bool lbtest::driver::CloseIt(lbBase&)", d.stepLine, BOOLEAN);
    EXPECT_TRUE(object.IsOpen());
}

TEST_F(LbBaseTest, CheckedCloseAfterEarlierFailureTouchesNothing)
{
    driver d;
    probe object;
    ASSERT_TRUE(d.OpenIt(object));
    lbGlobal.errorFlag = true;
    EXPECT_FALSE(d.CloseIt(object));
    EXPECT_EQ(object.closeCalls, 0);
    EXPECT_TRUE(object.IsOpen());
    ExpectOnlyStep("bool lbtest::driver::CloseIt(lbBase&)", d.stepLine, CONTINUE);
}

TEST_F(LbBaseTest, PostCloseResultNeverChangesTheClose)
{
    driver d;
    probe object;
    ASSERT_TRUE(d.OpenIt(object));
    object.closeMarksClosed = true;
    EXPECT_TRUE(d.CloseIt(object));
    // The object's Close() already ended it; the caller's PostClose found
    // nothing open and said so, and the close still succeeded.
    EXPECT_TRUE(object.postCloseResult);
    EXPECT_FALSE(object.PostClose());
    EXPECT_FALSE(object.IsOpen());
    EXPECT_TRUE(lbGlobal.trail.empty());
    EXPECT_FALSE(lbGlobal.errorFlag);
}

TEST_F(LbBaseTest, PostCloseAloneEndsAnOpenObject)
{
    driver d;
    probe object;
    ASSERT_TRUE(d.OpenIt(object));
    ASSERT_TRUE(object.Close());
    object.PostClose();
    EXPECT_FALSE(object.IsOpen());
}

TEST_F(LbBaseTest, RaisedFailureUnderShortTag)
{
    driver d;
    EXPECT_FALSE(d.FailUnderTag());
    ExpectOnlyStep("ShortTag", d.stepLine, "conversion not supported");
}

TEST_F(LbBaseTest, RecordWithoutRaisingTheFlag)
{
    driver d;
    EXPECT_TRUE(d.RecordOnly());
    EXPECT_EQ(Entries(), (Lines{At("bool lbtest::driver::RecordOnly()", d.stepLine), Message("noted, not failed")}));
    EXPECT_FALSE(lbGlobal.errorFlag);
}

TEST_F(LbBaseTest, TrailReadsFromTheInnermostFailureOutward)
{
    driver d;
    EXPECT_FALSE(d.Outer());
    EXPECT_EQ(Entries(), (Lines{
                             At("bool lbtest::driver::Inner()", d.innerLine),
                             Message("inner step failed"),
                             At("bool lbtest::driver::Middle()", d.middleLine),
                             Message(BOOLEAN),
                             At("bool lbtest::driver::Outer()", d.outerLine),
                             Message(BOOLEAN),
                         }));
    // The first failing step ended Outer: its later continue check never ran.
    EXPECT_EQ(d.afterLine, 0);
    EXPECT_TRUE(lbGlobal.errorFlag);
}

TEST_F(LbBaseTest, EveryLaterStepAddsOneContinueEntry)
{
    driver d;
    EXPECT_FALSE(d.Inner());
    EXPECT_FALSE(d.ContinueOnly());
    EXPECT_FALSE(d.Call(true));
    const Lines lines = Entries();
    ASSERT_EQ(lines.size(), 6u);
    EXPECT_EQ(lines[3], Message(CONTINUE));
    EXPECT_EQ(lines[5], Message(CONTINUE));
}

TEST_F(LbBaseTest, AddMessageFormatsPrintfStyle)
{
    probe object;
    object.addMessage("%s=%d%c", "n", 42, '!');
    object.addMessage("%s", "");
    EXPECT_EQ(Entries(), (Lines{Message("n=42!"), Message("")}));
}

// ---- Destructor check ----------------------------------------------------

TEST_F(LbBaseTest, DestroyingAnOpenObjectReportsItAndRaisesTheFlag)
{
    driver d;
    int openLine = 0;
    {
        probe object;
        ASSERT_TRUE(d.OpenIt(object));
        openLine = d.stepLine;
    }
    EXPECT_EQ(Entries(), (Lines{
                             At("virtual lbtest::probe::~probe()", probe::DESTRUCTOR_LINE),
                             Message("Object ( lbtest::probe ) was not closed before going out of scope. "),
                             OpenedBy(openLine, "lbtest::driver"),
                         }));
    EXPECT_TRUE(lbGlobal.errorFlag);
}

TEST_F(LbBaseTest, DestroyingAnOpenObjectAfterEarlierFailureAddsNothing)
{
    driver d;
    {
        probe object;
        ASSERT_TRUE(d.OpenIt(object));
        lbGlobal.errorFlag = true;
    }
    EXPECT_TRUE(lbGlobal.trail.empty());
    EXPECT_TRUE(lbGlobal.errorFlag);
}

TEST_F(LbBaseTest, DestroyingClosedOrNeverOpenedObjectsIsSilent)
{
    driver d;
    {
        probe never;
        probe closed;
        ASSERT_TRUE(d.OpenIt(closed));
        ASSERT_TRUE(d.CloseIt(closed));
    }
    EXPECT_TRUE(lbGlobal.trail.empty());
    EXPECT_FALSE(lbGlobal.errorFlag);
}

TEST_F(LbBaseTest, UndemangledNameLeavesOutOnlyTheMessage)
{
    driver d;
    int openLine = 0;
    {
        probe object;
        ASSERT_TRUE(d.OpenIt(object));
        openLine = d.stepLine;
        object.spoilTypeName();
    }
    EXPECT_EQ(Entries(), (Lines{
                             At("virtual lbtest::probe::~probe()", probe::DESTRUCTOR_LINE),
                             OpenedBy(openLine, "lbtest::driver"),
                         }));
    EXPECT_TRUE(lbGlobal.errorFlag);
}

TEST_F(LbBaseTest, OpenConverterDestroyedWithoutClosingIsReported)
{
    const int destructorLine =
        LineOf("recaster/converter.h", "LB_DESTRUCTOR_CHECK(\"virtual recaster::converter::~converter()\")");
    ASSERT_GT(destructorLine, 0);
    driver d;
    int openLine = 0;
    {
        recaster::converter conversion;
        ASSERT_TRUE(d.OpenConverter(conversion));
        openLine = d.stepLine;
    }
    EXPECT_EQ(Entries(),
              (Lines{
                  At("virtual recaster::converter::~converter()", destructorLine, "recaster/converter.h"),
                  Message("Object ( recaster::converter ) was not closed before going out of scope. "),
                  OpenedBy(openLine, "lbtest::driver"),
              }));
    EXPECT_TRUE(lbGlobal.errorFlag);
}

TEST_F(LbBaseTest, OpenConverterDestroyedAfterEarlierFailureAddsNothing)
{
    driver d;
    {
        recaster::converter conversion;
        ASSERT_TRUE(d.OpenConverter(conversion));
        lbGlobal.errorFlag = true;
    }
    EXPECT_TRUE(lbGlobal.trail.empty());
}

TEST_F(LbBaseTest, ClosedConverterIsDestroyedSilently)
{
    driver d;
    {
        recaster::converter conversion;
        ASSERT_TRUE(d.OpenConverter(conversion));
        ASSERT_TRUE(d.CloseIt(conversion));
    }
    EXPECT_TRUE(lbGlobal.trail.empty());
    EXPECT_FALSE(lbGlobal.errorFlag);
}

// ---- Trail dump ----------------------------------------------------------

TEST_F(LbBaseTest, HaveStackTraceTellsWhetherAnyEntryExists)
{
    probe object;
    EXPECT_FALSE(object.HaveStackTrace());
    object.addMessage("%s", "first");
    EXPECT_TRUE(object.HaveStackTrace());
    // Entries recorded on any object are seen through every object.
    probe other;
    EXPECT_TRUE(other.HaveStackTrace());
}

TEST_F(LbBaseTest, DumpOfAnEmptyTrailIsOnlyTheHeading)
{
    probe object;
    std::ostringstream out;
    object.DumpStackTrace(out);
    EXPECT_EQ(out.str(), "Error trail (innermost failure first):\n");
}

TEST_F(LbBaseTest, DumpLayout)
{
    driver d;
    probe opened;
    ASSERT_TRUE(opened.PreOpen("lib/where.cpp", 77, &d));
    ASSERT_TRUE(opened.PostOpen(77));
    probe anonymous;
    ASSERT_TRUE(anonymous.PreOpen("lib/anon.cpp", 5, nullptr));
    ASSERT_TRUE(anonymous.PostOpen(5));

    d.addHistory("bool ns::cls::Inner(const string&)", "src/cls.cpp", 12);
    d.addMessage("Input file not found");
    d.addHistory("virtual ns::cls::~cls()", "src/cls.h", 30);
    d.addMessage("Object ( %s ) was not closed before going out of scope. ", "ns::cls");
    d.addOpenedByHistory(&opened);
    d.addMessage("a message without a location");
    d.addHistory("Tag", "src/run.cpp", 3);
    d.addOpenedByHistory(&anonymous);

    std::ostringstream out;
    d.DumpStackTrace(out);
    EXPECT_EQ(out.str(),
              "Error trail (innermost failure first):\n"
              "#1  bool ns::cls::Inner(const string&)\n"
              "    at src/cls.cpp:12\n"
              "    Input file not found\n"
              "#2  virtual ns::cls::~cls()\n"
              "    at src/cls.h:30\n"
              "    Object ( ns::cls ) was not closed before going out of scope. \n"
              "    opened at lib/where.cpp:77 by lbtest::driver\n"
              "    a message without a location\n"
              "#3  Tag\n"
              "    at src/run.cpp:3\n"
              "    opened at lib/anon.cpp:5 by (unknown)\n");

    ASSERT_TRUE(opened.PreClose());
    opened.PostClose();
    ASSERT_TRUE(anonymous.PreClose());
    anonymous.PostClose();
}

TEST_F(LbBaseTest, DumpNumbersAMessageThatStartsTheTrail)
{
    probe object;
    object.addMessage("orphan");
    object.addHistory("f", "a.cpp", 1);
    std::ostringstream out;
    object.DumpStackTrace(out);
    EXPECT_EQ(out.str(),
              "Error trail (innermost failure first):\n"
              "#1\n"
              "    orphan\n"
              "#2  f\n"
              "    at a.cpp:1\n");
}

}  // namespace
