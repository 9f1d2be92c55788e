// Compares the cost of tracing each PKCS#11 call: the module's call layer with file logging on, and
// OpenSC's tracing library pkcs11-spy, with the same SoftHSM2 token. All calls, also the bare ones,
// use the bridge, in one session of one process. A second copy of the bridge loads the tracing
// library, which uses the token library that is already loaded.

#include <windows.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <filesystem>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

#include "folder.h"
#include "host.h"
#include "logger/logger.h"
#include "p11/p11.h"
#include "results.h"

namespace NV::bench {

namespace {

namespace host = test::host;

constexpr const char* group = "traced call layer";
constexpr const char* tokenLibrary = "/usr/lib/softhsm/libsofthsm2.so";
constexpr const char* spyLibrary = "/usr/lib/x86_64-linux-gnu/pkcs11/pkcs11-spy.so";

void check(const char* what, bool well)
{
    if (!well)
        throw std::runtime_error(std::string(what) + " failed");
}

// A token for this program alone.
class Token {
public:
    Token()
    {
        const std::string token = folder_.unixPath() + "/token";
        check("make-token.sh", host::run(host::quoted(MAKE_TOKEN) + " --small " +
                                         host::quoted(token) + " " + pin) == 0);
        host::setEnvironment("SOFTHSM2_CONF", token + "/softhsm2.conf");
    }

    static constexpr const char* pin = "keywarden-pin-4711";

private:
    host::TemporaryFolder folder_;
};

// A trace: a folder that nothing else writes to, and what a piece of work adds to it.
class Trace {
public:
    std::filesystem::path folder() const { return folder_.path(); }

    std::string text() const
    {
        std::string all;
        for (const std::string& name : test::entryNames(folder_.path()))
            all += test::readFile(folder_.path() / name);
        return all;
    }

    // How many of ten records open the file: before each record the file gets another name, and the
    // function then checks whether there is a new one.
    double openings(const std::function<void()>& record) const
    {
        constexpr int records = 10;
        int opened = 0;
        for (int i = 0; i < records; ++i) {
            const std::filesystem::path file =
                folder_.path() / test::entryNames(folder_.path()).front();
            std::filesystem::rename(file, aside_.path() / std::to_string(i));
            record();
            if (std::filesystem::exists(file))
                ++opened;
            else
                std::filesystem::rename(aside_.path() / std::to_string(i), file);
        }
        return static_cast<double>(opened) / records;
    }

private:
    test::TemporaryFolder folder_;
    test::TemporaryFolder aside_;
};

// The second copy of the bridge, with the tracing library behind it.
class Spy {
public:
    explicit Spy(const std::filesystem::path& output)
    {
        host::setEnvironment("P11_BRIDGE_MODULE", spyLibrary);
        host::setEnvironment("PKCS11SPY", tokenLibrary);
        host::setEnvironment("PKCS11SPY_OUTPUT", host::unixPath(output));
        const HMODULE library = LoadLibraryW(host::winelibPath("p11bridge_second.dll").c_str());
        check("loading the bridge's second copy", library != nullptr);
        const FARPROC address = GetProcAddress(library, "C_GetFunctionList");
        CK_C_GetFunctionList getFunctionList = nullptr;
        std::memcpy(&getFunctionList, &address, sizeof getFunctionList);
        check("C_GetFunctionList", getFunctionList(&list_) == CKR_OK);
        // The token library behind it is already initialized.
        check("pkcs11-spy", list_->C_Initialize(nullptr) == CKR_CRYPTOKI_ALREADY_INITIALIZED);
    }

    CK_FUNCTION_LIST* list() const { return list_; }

private:
    // Never unloaded: the bridge stays.
    CK_FUNCTION_LIST* list_ = nullptr;
};

// A piece of work and the number of its calls.
struct Calls {
    const char* name;
    double count;
    std::function<void()> make;
};

struct Key {
    CK_SESSION_HANDLE session;
    CK_OBJECT_HANDLE key;
};

template <typename Caller>
CK_OBJECT_HANDLE findKey(Caller* caller, CK_SESSION_HANDLE session)
{
    CK_OBJECT_CLASS privateKey = CKO_PRIVATE_KEY;
    std::array<CK_BYTE, 2> id{0x01, 0xAB};
    std::array<CK_ATTRIBUTE, 2> wanted{
        {{CKA_CLASS, &privateKey, sizeof privateKey}, {CKA_ID, id.data(), 2}}};
    CK_OBJECT_HANDLE key = 0;
    CK_ULONG count = 0;
    const bool well = caller->C_FindObjectsInit(session, wanted.data(), 2) == CKR_OK &&
                      caller->C_FindObjects(session, &key, 1, &count) == CKR_OK &&
                      caller->C_FindObjectsFinal(session) == CKR_OK;
    check("the search", well && count == 1);
    return key;
}

template <typename Caller>
void readId(Caller* caller, const Key& key)
{
    std::array<CK_BYTE, 16> id{};
    CK_ATTRIBUTE asked{CKA_ID, id.data(), 16};
    check("C_GetAttributeValue",
          caller->C_GetAttributeValue(key.session, key.key, &asked, 1) == CKR_OK);
}

template <typename Caller>
void sign(Caller* caller, const Key& key)
{
    CK_MECHANISM mechanism{CKM_RSA_PKCS, nullptr, 0};
    std::array<CK_BYTE, 32> hash{};
    std::array<CK_BYTE, 256> signature{};
    CK_ULONG length = 256;
    check("the signature",
          caller->C_SignInit(key.session, &mechanism, key.key) == CKR_OK &&
              caller->C_Sign(key.session, hash.data(), 32, signature.data(), &length) == CKR_OK);
}

template <typename Caller>
void askSession(Caller* caller, const Key& key)
{
    CK_SESSION_INFO info{};
    check("C_GetSessionInfo", caller->C_GetSessionInfo(key.session, &info) == CKR_OK);
}

// The same for the object of the call layer and for the function list of a library.
template <typename Caller>
std::vector<Calls> callsOf(Caller* caller, const Key& key)
{
    return {{"C_GetSessionInfo", 1, [=] { askSession(caller, key); }},
            {"C_FindObjectsInit, C_FindObjects, C_FindObjectsFinal", 3,
             [=] { findKey(caller, key.session); }},
            {"C_GetAttributeValue", 1, [=] { readId(caller, key); }},
            {"C_SignInit, C_Sign (RSA, 2048 bits)", 2, [=] { sign(caller, key); }}};
}

Figure perCall(const Figure& nanoseconds, double calls)
{
    const double factor = 1 / (1000 * calls);
    return {nanoseconds.median * factor, nanoseconds.low * factor, nanoseconds.high * factor};
}

std::string named(const Calls& calls, const char* how)
{
    return std::string(calls.name) + ": " + how;
}

// What the work writes for each call: lines and bytes.
void reportWriting(Results& results, const Calls& calls, const char* how, const Trace& trace)
{
    constexpr int runs = 20;
    const std::string before = trace.text();
    for (int i = 0; i < runs; ++i)
        calls.make();
    const std::string after = trace.text();
    const double made = runs * calls.count;
    const auto bytes = static_cast<double>(after.size() - before.size()) / made;
    const auto lines =
        static_cast<double>(std::ranges::count(after, '\n') - std::ranges::count(before, '\n')) /
        made;
    results.value({group, named(calls, how), "lines written for a call"}, {lines, lines, lines},
                  "lines", report);
    results.value({group, named(calls, how), "bytes written for a call"}, {bytes, bytes, bytes},
                  "bytes", report);
}

void compareCalls(Results& results, const Plan& plan, const Calls& layer, const Calls& spy,
                  const Calls& bare)
{
    const Batch bareBatch = repeated(bare.make);
    const Batch layerBatch = repeated(layer.make);
    const Batch spyBatch = repeated(spy.make);
    const Comparison ofLayer = compare(layerBatch, bareBatch, plan);
    const Comparison ofSpy = compare(spyBatch, bareBatch, plan);
    loggerSettings().types = 0;
    const Comparison ofSilence = compare(layerBatch, bareBatch, plan);
    loggerSettings().types = logToFile;
    results.value({group, named(bare, "bare"), "time of a call"},
                  perCall(ofSpy.reference, bare.count), "us", report);
    results.value({group, named(layer, "traced layer"), "added to a bare call"},
                  perCall(ofLayer.difference, layer.count), "us", report);
    results.value({group, named(layer, "traced layer, log off"), "added to a bare call"},
                  perCall(ofSilence.difference, layer.count), "us", report);
    results.value({group, named(spy, "pkcs11-spy"), "added to a bare call"},
                  perCall(ofSpy.difference, spy.count), "us", report);
    results.ratio({group, named(layer, "traced layer"), "the same by pkcs11-spy"},
                  compare(layerBatch, spyBatch, plan), report);
}

Key openedKey(Pkcs11& p11)
{
    Key key{};
    std::string pin = Token::pin;
    const auto& slots = p11.module()->slots();
    const auto token = std::ranges::find_if(slots, [](const auto& slot) {
        return (slot->tokenInfo().flags & CKF_TOKEN_INITIALIZED) != 0;
    });
    check("finding the token", token != slots.end());
    check("opening a session", p11.C_OpenSession((*token)->id(), CKF_SERIAL_SESSION, nullptr,
                                                 nullptr, &key.session) == CKR_OK);
    check("logging in", p11.C_Login(key.session, CKU_USER, reinterpret_cast<CK_BYTE*>(pin.data()),
                                    static_cast<CK_ULONG>(pin.size())) == CKR_OK);
    key.key = findKey(&p11, key.session);
    return key;
}

void benchmark(Results& results, const Plan& plan)
{
    const Token token;
    const Trace ofLayer;
    const Trace ofSpy;
    loggerSettings().store = test::narrowPath(ofLayer.folder());

    Pkcs11 p11;
    host::setEnvironment("P11_BRIDGE_MODULE", tokenLibrary);
    check("loading the token", p11.loadModule(host::winelibPath("p11bridge.dll").string()));
    check("C_Initialize", p11.C_Initialize(nullptr) == CKR_OK);
    const Spy spy(ofSpy.folder() / "spy.log");
    const Key key = openedKey(p11);

    const std::vector<Calls> layerCalls = callsOf(&p11, key);
    const std::vector<Calls> spyCalls = callsOf(spy.list(), key);
    const std::vector<Calls> bareCalls = callsOf(p11.module()->functionList(), key);
    for (size_t i = 0; i < layerCalls.size(); ++i) {
        compareCalls(results, plan, layerCalls[i], spyCalls[i], bareCalls[i]);
        reportWriting(results, layerCalls[i], "traced layer", ofLayer);
        reportWriting(results, spyCalls[i], "pkcs11-spy", ofSpy);
    }
    const double layerOpens = ofLayer.openings([] { TRC("one record"); });
    const double spyOpens = ofSpy.openings(spyCalls.front().make);
    results.value({group, "traced layer", "openings of the file for a line"},
                  {layerOpens, layerOpens, layerOpens}, "openings", report);
    results.value({group, "pkcs11-spy", "openings of the file for a call"},
                  {spyOpens, spyOpens, spyOpens}, "openings", report);
    check("C_Finalize", p11.C_Finalize(nullptr) == CKR_OK);
    // The log lines of the objects' destruction are not measured.
    loggerSettings().types = 0;
}

}  // namespace

}  // namespace NV::bench

int main(int argc, char** argv)
{
    return NV::bench::runBenchmark(argc, argv, &NV::bench::benchmark);
}
