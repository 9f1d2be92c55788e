// Where a function stands (NV_HERE) and what the scope of a function writes.

#include "logger/trace.h"

#include <windows.h>

#include <gtest/gtest.h>

#include <regex>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "base/scope_exit.h"
#include "log_capture.h"

// clang 14, which only lints this, cannot evaluate NV_HERE where the name has a template's parameters.
#ifdef __clang__
#define NV_HERE_IN_TEMPLATE NV::Site()
#else
#define NV_HERE_IN_TEMPLATE NV_HERE
#endif

namespace NV::traced {

std::string name(const Site& site)
{
    return {site.function, static_cast<size_t>(site.functionLength)};
}

std::string freeFunction(int, const char*)
{
    return name(NV_HERE);
}

const char* pointerResult(std::string& result)
{
    result = name(NV_HERE);
    return nullptr;
}

const std::string& referenceResult(std::string& result)
{
    result = name(NV_HERE);
    return result;
}

std::pair<int, std::vector<int>> templateResult(std::string& result)
{
    result = name(NV_HERE);
    return {};
}

// The parenthesis in the result's template arguments is not the name's end.
std::vector<int (*)(int)> functionPointersResult(std::string& result)
{
    result = name(NV_HERE);
    return {};
}

template <typename T>
std::string functionTemplate(const T&)
{
    return name(NV_HERE_IN_TEMPLATE);
}

class Object {
public:
    // cppcheck-suppress useInitializationList ; it is a variable of the test, not a member
    Object() { constructorName = name(NV_HERE); }
    explicit Object(std::string& destructorName) : destructorName_(&destructorName) {}
    Object(const Object&) = delete;
    Object& operator=(const Object&) = delete;
    virtual ~Object()
    {
        if (destructorName_ != nullptr)
            *destructorName_ = name(NV_HERE);
    }

    std::string member(int) const { return name(NV_HERE); }
    virtual unsigned long long virtualMember(std::string& result)
    {
        result = name(NV_HERE);
        return 0;
    }
    static std::string staticMember(std::string (*)(int) = nullptr) { return name(NV_HERE); }
    std::string noexceptMember() const noexcept { return name(NV_HERE); }

    template <typename T>
    std::string memberTemplate(T) const
    {
        return name(NV_HERE_IN_TEMPLATE);
    }

    std::string lambdaInMember() const
    {
        const auto lambda = [](int) { return name(NV_HERE); };
        return lambda(1);
    }

    std::string lambdaInLambda() const
    {
        const auto outer = [] {
            const auto inner = [](std::pair<int, int>) { return name(NV_HERE); };
            return inner({});
        };
        return outer();
    }

    struct Nested {
        static std::string staticMember() { return name(NV_HERE); }
    };

    std::string constructorName;

private:
    std::string* destructorName_ = nullptr;
};

template <typename T>
class Box {
public:
    std::string member(T) const { return name(NV_HERE_IN_TEMPLATE); }
};

}  // namespace NV::traced

extern "C" {

int NVTestExternFunction(void* result)
{
    *static_cast<std::string*>(result) = NV::traced::name(NV_HERE);
    return 0;
}

}  // extern "C"

namespace NV {

namespace {

using test::LogCapture;

std::string anonymousFunction()
{
    return traced::name(NV_HERE);
}

TEST(Here, NamesFreeFunctions)
{
    EXPECT_EQ("NV::traced::freeFunction", traced::freeFunction(1, ""));
}

TEST(Here, LeavesOutTheResultType)
{
    std::string result;
    traced::pointerResult(result);
    EXPECT_EQ("NV::traced::pointerResult", result);
    traced::referenceResult(result);
    EXPECT_EQ("NV::traced::referenceResult", result);
    traced::templateResult(result);
    EXPECT_EQ("NV::traced::templateResult", result);
    traced::functionPointersResult(result);
    EXPECT_EQ("NV::traced::functionPointersResult", result);
}

TEST(Here, NamesMembers)
{
    traced::Object object;
    EXPECT_EQ("NV::traced::Object::member", object.member(1));
    EXPECT_EQ("NV::traced::Object::noexceptMember", object.noexceptMember());
    std::string result;
    object.virtualMember(result);
    EXPECT_EQ("NV::traced::Object::virtualMember", result);
    EXPECT_EQ("NV::traced::Object::staticMember", traced::Object::staticMember());
    EXPECT_EQ("NV::traced::Object::Nested::staticMember", traced::Object::Nested::staticMember());
}

TEST(Here, NamesConstructorsAndDestructors)
{
    EXPECT_EQ("NV::traced::Object::Object", traced::Object().constructorName);
    std::string result;
    {
        const traced::Object object(result);
    }
    EXPECT_EQ("NV::traced::Object::~Object", result);
}

TEST(Here, NamesTemplatesWithTheirParametersNames)
{
    EXPECT_EQ("NV::traced::functionTemplate", traced::functionTemplate(1));
    EXPECT_EQ("NV::traced::functionTemplate", traced::functionTemplate(std::vector<int>()));
    EXPECT_EQ("NV::traced::Object::memberTemplate", traced::Object().memberTemplate(1));
    EXPECT_EQ("NV::traced::Box<T>::member", traced::Box<int>().member(1));
}

TEST(Here, NamesFunctionsWithCLinkage)
{
    std::string result;
    NVTestExternFunction(&result);
    EXPECT_EQ("NVTestExternFunction", result);
}

TEST(Here, ALambdaSpeaksUnderItsFunctionsName)
{
    EXPECT_EQ("NV::traced::Object::lambdaInMember", traced::Object().lambdaInMember());
    EXPECT_EQ("NV::traced::Object::lambdaInLambda", traced::Object().lambdaInLambda());
}

TEST(Here, ShowsAnonymousNamespacesAsTheCompilerDoes)
{
    EXPECT_EQ("NV::{anonymous}::anonymousFunction", anonymousFunction());
}

TEST(Here, GivesTheFilesBaseNameAndTheLine)
{
    constexpr Site site = NV_HERE;
    EXPECT_EQ(__LINE__ - 1, site.line);
    EXPECT_STREQ("trace_test.cpp", site.file);
}

TEST(MakeSite, TheBaseNameFollowsTheLastSeparator)
{
    EXPECT_STREQ("dll.cpp", makeSite("f()", "provider/src/dll.cpp", 1).file);
    EXPECT_STREQ("dll.cpp", makeSite("f()", "C:\\provider\\src\\dll.cpp", 1).file);
    EXPECT_STREQ("dll.cpp", makeSite("f()", "C:\\provider/src\\a/dll.cpp", 1).file);
    EXPECT_STREQ("dll.cpp", makeSite("f()", "dll.cpp", 1).file);
}

// Compilers differ in where they put the blank.
TEST(MakeSite, TheNameBeginsBehindTheSignsOfTheResultType)
{
    EXPECT_EQ("NV::f", traced::name(makeSite("const char *NV::f(int)", "a.cpp", 1)));
    EXPECT_EQ("NV::f", traced::name(makeSite("const char* NV::f(int)", "a.cpp", 1)));
    EXPECT_EQ("NV::f", traced::name(makeSite("std::map<int, A *> &NV::f()", "a.cpp", 1)));
    EXPECT_EQ("main", traced::name(makeSite("main", "a.cpp", 1)));
}

class LogTraceTest : public testing::Test {
protected:
    test::LogLine onlyLine() const
    {
        const test::LogLines lines = capture.lines();
        EXPECT_EQ(1U, lines.size());
        return lines.empty() ? test::LogLine{} : lines.front();
    }

    // Without their levels and functions.
    std::string messages() const
    {
        std::string all;
        for (const test::LogLine& line : capture.lines())
            all += line.message + "\n";
        return all;
    }

    LogCapture capture;
};

using LogMacros = LogTraceTest;
using NoOutput = LogTraceTest;
using TraceScope = LogTraceTest;
using TraceArguments = LogTraceTest;

// --- messages ---

TEST_F(LogMacros, PutTheirPlaceBeforeTheMessage)
{
    const int line = __LINE__ + 1;
    NV_SEV("severe");
    NV_ERR("error %d", 5);
    NV_WRN("warning %s", "w");
    NV_INF("100%%");
    NV_DBG("debug");
    NV_TRC("%s", "");
    const test::LogLines lines = capture.lines();
    test::expectBlock(lines, R"(
SEV NV::{anonymous}::LogMacros_PutTheirPlaceBeforeTheMessage_Test::TestBody:severe
ERR NV::{anonymous}::LogMacros_PutTheirPlaceBeforeTheMessage_Test::TestBody:error 5
WRN NV::{anonymous}::LogMacros_PutTheirPlaceBeforeTheMessage_Test::TestBody:warning w
INF NV::{anonymous}::LogMacros_PutTheirPlaceBeforeTheMessage_Test::TestBody:100%
DBG NV::{anonymous}::LogMacros_PutTheirPlaceBeforeTheMessage_Test::TestBody:debug
TRC NV::{anonymous}::LogMacros_PutTheirPlaceBeforeTheMessage_Test::TestBody:
)");
    for (size_t i = 0; i < lines.size(); ++i) {
        EXPECT_EQ("trace_test.cpp", lines[i].file);
        EXPECT_EQ(line + static_cast<int>(i), lines[i].line);
    }
}

TEST_F(LogMacros, WriteTheWholePrefix)
{
    NV_LINE(ERR, makeSite("void NV::Provider::init(int)", "", 0), "nvvtoken.cpp", 87, "failed: %d",
            3);
    const std::string raw = onlyLine().raw;
    EXPECT_TRUE(raw.ends_with("] NV::Provider::init[nvvtoken.cpp:87]:failed: 3")) << raw;
}

constexpr Site otherFunction = makeSite("void NV::KeyStore::load()", "src/keystore.cpp", 1);

TEST_F(LogMacros, AStepSpeaksUnderItsOperationsNameWithItsOwnFileAndLine)
{
    NV_UNDER(ERR, otherFunction, "step %d", 2);
    const int line = __LINE__ - 1;
    const test::LogLine logged = onlyLine();
    EXPECT_EQ("ERR NV::KeyStore::load:step 2", test::render(logged));
    EXPECT_EQ("trace_test.cpp", logged.file);
    EXPECT_EQ(line, logged.line);
}

// --- records that no output takes ---

// An argument that tells that it was worked out.
int workedOut(int& times)
{
    return ++times;
}

TEST_F(NoOutput, ARecordIsCountedAndItsArgumentsAreNotWorkedOut)
{
    loggerSettings().types = 0;
    int times = 0;
    NV_SEV("%d", workedOut(times));
    NV_ERR("%d", workedOut(times));
    NV_WRN("%d", workedOut(times));
    NV_INF("%d", workedOut(times));
    NV_DBG("%d", workedOut(times));
    NV_TRC("%d", workedOut(times));
    NV_UNDER(ERR, NV_HERE, "%d", workedOut(times));
    EXPECT_EQ(0, times);
    EXPECT_EQ(8U, loggerRecordCount());
    loggerSettings().types = logToFile;
    NV_TRC("%d", workedOut(times));
    EXPECT_EQ(1, times);
    EXPECT_EQ(9U, loggerRecordCount());
    EXPECT_EQ(1U, capture.lines().size());
}

TEST_F(NoOutput, ASuppressedSevereRecordIsNotCountedAndItsArgumentsAreNotWorkedOut)
{
    loggerSettings().levelMask = 0x3F;
    int times = 0;
    for (const uint32_t types : {logToFile, 0U}) {
        loggerSettings().types = types;
        NV_SEV("%d", workedOut(times));
    }
    EXPECT_EQ(0, times);
    EXPECT_EQ(1U, loggerRecordCount());
}

// The macros are statements.
TEST_F(NoOutput, AnElseBehindARecordBelongsToTheIfBeforeIt)
{
    for (const bool first : {true, false}) {
        if (first)
            NV_UNDER(TRC, NV_HERE, "first");
        else
            NV_UNDER(TRC, NV_HERE, "second");
    }
    EXPECT_EQ("first\nsecond\n", messages());
}

// --- the scope of a function ---

int lineOfEnter = 0;
int lineOfEnd = 0;

constexpr int32_t invalidParameter = -2146893785;  // 0x80090027

int32_t withStatus(uintptr_t handle)
{
    lineOfEnter = __LINE__ + 1;
    Trace trace{NV_HERE};
    trace.arguments(pointer("hKey", handle));
    trace.arguments(flagBits("dwFlags", 0x40U));
    trace.startClock();
    lineOfEnd = __LINE__ + 1;
    return trace.end(invalidParameter);
}

TEST_F(TraceScope, WritesEnterArgumentsStatusAndLeave)
{
    EXPECT_EQ(invalidParameter, withStatus(0x1234));
    const test::LogLines lines = capture.lines();
    test::expectBlock(lines, R"(
TRC NV::{anonymous}::withStatus:ENTER
TRC NV::{anonymous}::withStatus:ARG[0]:hKey=PTR
TRC NV::{anonymous}::withStatus:ARG[1]:dwFlags=0x40
TRC NV::{anonymous}::withStatus:STATUS=0x80090027, ELAPSED:#(ms)
TRC NV::{anonymous}::withStatus:LEAVE
)");
    ASSERT_EQ(5U, lines.size());
    EXPECT_EQ(lineOfEnter, lines[0].line);
    EXPECT_EQ(lineOfEnter + 1, lines[1].line);
    EXPECT_EQ(lineOfEnter + 2, lines[2].line);
    EXPECT_EQ(lineOfEnd, lines[3].line);
    EXPECT_EQ(lineOfEnd, lines[4].line);
}

TEST_F(TraceScope, AStatusMayBeNegativeAndZero)
{
    const Trace trace{makeSite("void f()", "a.cpp", 1)};
    EXPECT_EQ(0, trace.end(0));
    EXPECT_EQ(invalidParameter, trace.end(invalidParameter));
    test::expectBlock(capture.lines(), R"(
TRC f:ENTER
TRC f:STATUS=0x0, ELAPSED:#(ms)
TRC f:LEAVE
TRC f:STATUS=0x80090027, ELAPSED:#(ms)
TRC f:LEAVE
)");
}

TEST_F(TraceScope, ShowsAPointerLikeNumberInFull)
{
    withStatus(0x1234);
    EXPECT_EQ("ARG[0]:hKey=0000000000001234", capture.lines().at(1).message);
}

TEST_F(TraceArguments, PrintAsTheirDescriptorsSay)
{
    Trace trace{makeSite("void f()", "a.cpp", 1)};
    const char narrow[] = "key";
    const wchar_t wide[] = L"n\u00FA\U0001F511";
    trace.arguments(pointer("pointer", &narrow), pointer("handle", 0x12U), number("number", -7),
                    number("size", sizeof narrow), flagBits("flags", 0x8000001DU),
                    bareFlagBits("bare", 0x1DU), text("narrow", narrow), text("wide", wide),
                    byteCount("pin", 8U));
    const auto* noNarrow = static_cast<const char*>(nullptr);
    const auto* noWide = static_cast<const wchar_t*>(nullptr);
    const auto* nothing = static_cast<const void*>(nullptr);
    trace.arguments(text("narrow", noNarrow), text("wide", noWide), pointer("none", nothing),
                    spaced(text("id", "01AB")));
    test::expectBlock(capture.lines(), R"(
TRC f:ENTER
TRC f:ARG[0]:pointer=PTR
TRC f:ARG[1]:handle=PTR
TRC f:ARG[2]:number=-7
TRC f:ARG[3]:size=4
TRC f:ARG[4]:flags=0x8000001d
TRC f:ARG[5]:bare=1d
TRC f:ARG[6]:narrow=key
TRC f:ARG[7]:wide=nú🔑
TRC f:ARG[8]:pin=8(bytes)
TRC f:ARG[9]:narrow=(null)
TRC f:ARG[10]:wide=(null)
TRC f:ARG[11]:none=NULL
TRC f:ARG[12]:id = 01AB
)");
}

TEST_F(TraceArguments, HaveTheLevelThatIsAskedFor)
{
    Trace trace{makeSite("void f()", "a.cpp", 1)};
    trace.arguments<LogLevel::DBG>(number("a", 1));
    logArguments<LogLevel::ERR>(otherFunction, 3, number("b", 2), number("c", 3));
    test::expectBlock(capture.lines(), R"(
TRC f:ENTER
DBG f:ARG[0]:a=1
ERR NV::KeyStore::load:ARG[3]:b=2
ERR NV::KeyStore::load:ARG[4]:c=3
)");
}

TEST_F(TraceArguments, CarryTheFileAndLineOfTheirOwnStatement)
{
    Trace trace{otherFunction};
    const int line = __LINE__ + 1;
    trace.arguments(number("a", 1));
    trace.leave();
    const test::LogLines lines = capture.lines();
    ASSERT_EQ(3U, lines.size());
    EXPECT_EQ("keystore.cpp", lines[0].file);
    EXPECT_EQ("trace_test.cpp", lines[1].file);
    EXPECT_EQ(line, lines[1].line);
    EXPECT_EQ("trace_test.cpp", lines[2].file);
    EXPECT_EQ(line + 1, lines[2].line);
}

TEST_F(TraceScope, CountsItsRecordsWithoutOutputToo)
{
    withStatus(0x1234);
    const uint32_t written = loggerRecordCount() - 1;
    EXPECT_EQ(5U, written);
    loggerSettings().types = 0;
    withStatus(0x1234);
    EXPECT_EQ(1 + 2 * written, loggerRecordCount());
}

// An index can be left out, and counts whether its line is written or not.
TEST_F(TraceScope, AnIndexIsThatOfTheArgument)
{
    Trace trace{NV_HERE};
    trace.arguments(number("a", 1));
    trace.skipArgument();
    trace.arguments(number("c", 3));
    loggerSettings().types = 0;
    trace.arguments(number("d", 4));
    trace.skipArgument();
    trace.arguments(number("f", 6));
    loggerSettings().types = logToFile;
    trace.arguments(number("g", 7));
    EXPECT_EQ("ENTER\nARG[0]:a=1\nARG[2]:c=3\nARG[6]:g=7\n", messages());
}

TEST_F(TraceScope, ATimeThatBeganWithoutOutputIsNone)
{
    loggerSettings().types = 0;
    const Trace trace{makeSite("void f()", "a.cpp", 1)};
    const Stopwatch watch;
    Sleep(5);
    loggerSettings().types = logToFile;
    trace.end(0);
    EXPECT_EQ("STATUS=0x0, ELAPSED:0.000(ms)", capture.lines().at(0).message);
    EXPECT_EQ(0.0, watch.milliseconds());
}

TEST_F(TraceScope, EndsWithAResult)
{
    const Trace trace{makeSite("void f()", "a.cpp", 1)};
    EXPECT_TRUE(trace.endWithResult(true));
    EXPECT_FALSE(trace.endWithResult(false));
    EXPECT_TRUE(trace.leave(true));
    EXPECT_FALSE(trace.leave(false));
    trace.leave();
    test::expectBlock(capture.lines(), R"(
TRC f:ENTER
TRC f:RESULT=1, ELAPSED:#(ms)
TRC f:LEAVE
TRC f:RESULT=0, ELAPSED:#(ms)
TRC f:LEAVE
TRC f:LEAVE(1)
TRC f:LEAVE(0)
TRC f:LEAVE
)");
}

// The milliseconds of the "ELAPSED:" line.
double elapsed(const test::LogLine& line)
{
    std::smatch match;
    if (!std::regex_search(line.message, match, std::regex(R"(ELAPSED:([0-9]+\.[0-9]{3})\(ms\)$)")))
        throw std::runtime_error("no time in " + line.message);
    return std::stod(match[1]);
}

TEST_F(TraceScope, MeasuresFromTheStartOfTheClockInMilliseconds)
{
    Trace trace{NV_HERE};
    const Stopwatch whole;
    Sleep(80);
    trace.startClock();
    const Stopwatch measured;
    Sleep(20);
    const double atLeast = measured.milliseconds();
    trace.end(0);
    const double atMost = whole.milliseconds();
    const double shown = elapsed(capture.lines().at(1));
    EXPECT_GE(shown, atLeast - 0.001);
    EXPECT_GE(atLeast, 15.0);
    EXPECT_LE(shown, atMost - 70);
}

void leftByException()
{
    Trace trace{NV_HERE};
    trace.arguments(number("a", 1));
    trace.startClock();
    throw std::runtime_error("left");
}

TEST_F(TraceScope, WritesNothingWhileAnExceptionUnwinds)
{
    EXPECT_THROW(leftByException(), std::runtime_error);
    test::expectBlock(capture.lines(), R"(
TRC NV::{anonymous}::leftByException:ENTER
TRC NV::{anonymous}::leftByException:ARG[0]:a=1
)");
}

TEST_F(TraceScope, WritesNothingAtItsEndByItself)
{
    {
        const Trace trace{makeSite("void f()", "a.cpp", 1)};
    }
    EXPECT_EQ("TRC f:ENTER\n", test::render(capture.lines()));
}

TEST(Quietly, SwallowsEveryException)
{
    int calls = 0;
    quietly([&] { ++calls; });
    quietly([&] {
        ++calls;
        throw std::runtime_error("swallowed");
    });
    quietly([&] {
        ++calls;
        throw 5;
    });
    EXPECT_EQ(3, calls);
}

}  // namespace

}  // namespace NV
