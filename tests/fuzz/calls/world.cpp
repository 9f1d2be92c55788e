// The token, the disturbances, and what a call may leave behind.

#include "world.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <mutex>
#include <string_view>

#include "certificates.h"
#include "config/config.h"
#include "dialog.h"
#include "keystore/keystore_secret.h"
#include "logger/logger.h"
#include "nvvtoken/nvvtoken.h"

extern "C" NTSTATUS WINAPI GetKeyStorageInterface(LPCWSTR pszProviderName,
                                                  NCRYPT_KEY_STORAGE_FUNCTION_TABLE** ppTable,
                                                  DWORD dwFlags);

namespace NV::fuzz {

namespace {

using test::Fault;
using test::StruckFault;
using test::TokenState;

// The log's clock is the first thing that a record asks for.
struct FailingLog {
    bool acts = false;
    uint32_t untilFailure = 0;
    bool failed = false;
};

FailingLog failingLog;

// Made once, because making it takes memory.
const std::filesystem::filesystem_error& logError()
{
    static const std::filesystem::filesystem_error error(
        "directory_iterator", "logs", std::make_error_code(std::errc::not_a_directory));
    return error;
}

std::chrono::system_clock::time_point logTime()
{
    if (failingLog.acts && failingLog.untilFailure != 0 && --failingLog.untilFailure == 0) {
        failingLog.failed = true;
        throw std::filesystem::filesystem_error(logError());
    }
    return std::chrono::system_clock::now();
}

constexpr uint8_t tokenKinds = 8;

// A successful call leaves the caller's last error as it was.
constexpr DWORD callersError = 0x7391;

// What a fault of a clean-up call may leave on the token.
struct Excuse {
    bool initialised = false;
    bool session = false;
    bool login = false;
};

bool failsAfterWork(const StruckFault& struck)
{
    return struck.fault == Fault::returnAfterWork || struck.fault == Fault::throwAfterWork;
}

Excuse excuseOf(const std::vector<StruckFault>& struck)
{
    Excuse excuse;
    for (const StruckFault& each : struck) {
        const std::string_view function(each.function);
        excuse.initialised |=
            function == "C_Finalize" || (function == "C_Initialize" && failsAfterWork(each));
        excuse.session |=
            function == "C_CloseSession" || (function == "C_OpenSession" && failsAfterWork(each));
        excuse.login |= function == "C_Logout" || (function == "C_Login" && failsAfterWork(each));
    }
    return excuse;
}

bool claims(const StruckFault& struck)
{
    return struck.fault == Fault::claims;
}

bool lies(const StruckFault& struck)
{
    return claims(struck) || struck.fault == Fault::secondCountLarger ||
           struck.fault == Fault::lengthPastBuffer;
}

bool returns(const StruckFault& struck)
{
    return struck.fault == Fault::returnValue || struck.fault == Fault::returnAfterWork;
}

// A sequence takes CKR_CRYPTOKI_ALREADY_INITIALIZED for success, and goes on.
bool failsSequence(const StruckFault& struck, bool initialisedBefore)
{
    const bool inUse = std::string_view(struck.function) == "C_Initialize" &&
                       struck.value == CKR_CRYPTOKI_ALREADY_INITIALIZED && returns(struck);
    if (inUse)
        return struck.fault == Fault::returnValue && !initialisedBefore;
    return !lies(struck) && struck.fault != Fault::delay;
}

bool isPinQuery(const StruckFault& struck)
{
    return std::string_view(struck.function) == "C_GetTokenInfo";
}

// What the standard library takes for a long component of a path that is split is not counted when it is
// released, so this name of the library has short ones only.
std::string libraryPath()
{
    std::string path = test::ScriptedToken::path();
    if (!rules.splitsLibraryPath)
        return path;
    const int library = open(path.c_str(), O_RDONLY);
    HOLDS(library >= 0);
    return "/proc/self/fd/" + std::to_string(library);
}

// The configuration is read from a file, which need not have a name.
void configure()
{
    const int file = memfd_create("configuration", 0);
    const std::string text = "p11File=" + libraryPath() + "\n";
    HOLDS(write(file, text.data(), text.size()) == static_cast<ssize_t>(text.size()));
    Config::instance().load("/proc/self/fd/" + std::to_string(file));
    close(file);
}

SecretBytes bytesOf(std::string_view text)
{
    return {text.begin(), text.end()};
}

SecretBytes answerPin(Pin pin)
{
    switch (pin) {
    case Pin::right:
        return bytesOf(test::kPin);
    case Pin::wrong:
        return bytesOf("wrong-PIN");
    case Pin::tooLong:
        return SecretBytes(300, 'x');
    case Pin::cancelled:
        throw PINDialogException("User canceled", PINDialogException::userCanceled);
    case Pin::broken:
        throw PINDialogException("Failed", PINDialogException::openFailed);
    default:
        return {};
    }
}

Bytes fileContent(const std::string& name)
{
    std::FILE* const file = std::fopen((CERTIFICATE_FOLDER + ("/" + name)).c_str(), "rb");
    HOLDS(file != nullptr);
    Bytes content(8192);
    content.resize(std::fread(content.data(), 1, content.size(), file));
    static_cast<void>(std::fclose(file));
    return content;
}

constexpr const char* certificateNames[] = {"rsa2048", "rsa1024", "p256",
                                            "p384",    "p521",    "ed25519"};

}  // namespace

uint64_t& callCount()
{
    static uint64_t count = 0;
    return count;
}

bool showsCalls()
{
    static const bool shows = std::getenv("KEYWARDEN_SHOW_CALLS") != nullptr;
    return shows;
}

Key* ProviderModel::openedOrImported(NCRYPT_KEY_HANDLE key)
{
    for (auto* keys : {&opened, &imported}) {
        if (const auto found = keys->find(key); found != keys->end())
            return &found->second;
    }
    return nullptr;
}

Output::Output(size_t size, bool null)
    : bytes_(null ? nullptr : new BYTE[size]), size_(static_cast<DWORD>(size))
{
    if (!null)
        std::fill_n(bytes_.get(), size, filler);
}

bool Output::untouchedFrom(size_t place) const
{
    return place <= size_ && std::all_of(bytes_.get() + place, bytes_.get() + size_,
                                         [](BYTE byte) { return byte == filler; });
}

bool Output::holds(const Bytes& bytes) const
{
    if (null())
        return bytes.empty();
    return untouchedFrom(bytes.size()) && std::equal(bytes.begin(), bytes.end(), bytes_.get());
}

World::Window::Window(World& world) : world_(world)
{
    takeNothrowBlock();
    SetLastError(callersError);
    failingLog.acts = true;
    failAllocation(world.untilNoMemory_);
}

World::Window::~Window()
{
    world_.untilNoMemory_ = failAllocation(0);
    failingLog.acts = false;
}

World::World() : library_(token_.exports())
{
    for (const char* name : certificateNames) {
        for (const char* ending : {".der", ".spki.hex"})
            fixtures_[std::string(name) + ending] = fileContent(std::string(name) + ending);
    }
    configure();
    setMode(Mode(rules.behaviour));
    loggerSettings() = LoggerSettings{.types = 0,
                                      .store = "",
                                      .gatesAllLevels = mode().logsByLevel(),
                                      .survivesFailures = mode().survivesLogFailures(),
                                      .now = &logTime};
    // What the log writes to the console costs its formatting and nothing else.
    HOLDS(std::freopen("/dev/null", "w", stdout) != nullptr);
    stand_in::setPinAnswer([this](const PINRequest*) { return answerPin(pin_); });
    GetKeyStorageInterface(L"Norvanta Software KeyStore Provider", &table_, 0);
    stand_in::keepDecodedKeys();
    logError();
    // The system's certificate store would keep what an opening publishes.
    importedCertOpenSystemStoreW = [](HCRYPTPROV_LEGACY, LPCWSTR) {
        return CertOpenStore(CERT_STORE_PROV_MEMORY, 0, 0, 0, nullptr);
    };
    // What is made once in the process is made here, so that it does not count as left by a call.
    for (uint8_t kind = 0; kind < tokenKinds; ++kind) {
        makeToken(kind);
        NCRYPT_PROV_HANDLE handle = 0;
        ask([&] { return table_->OpenProvider(&handle, L"any", 0); });
        ask([&] { return table_->FreeProvider(handle); });
    }
    ProviderManager::instance().clear();
    size_t ignored = 0;
    OwnedSecret secret = makeSecret(1);
    const auto handle = reinterpret_cast<NCRYPT_SECRET_HANDLE>(secret.get());
    SecretList::instance().add(std::move(secret));
    static_cast<void>(SecretList::instance().remove(handle, ignored));
}

void World::begin(uint8_t tokenKind)
{
    makeToken(tokenKind);
    setLog(false, 0);
    untilNoMemory_ = 0;
    pin_ = Pin::right;
    emptyEntries.clear();
    freedProviders.clear();
    freedKeys.clear();
    before_ = token_.state();
}

void World::end()
{
    setLog(false, 0);
    untilNoMemory_ = 0;
    settleToken();
    for (uint32_t* state : std::exchange(enumerations, {}))
        HOLDS(ask([&] { return table_->FreeBuffer(state); }) == ERROR_SUCCESS);
    HOLDS(secretsInModule() == secrets.size());
    for (const auto& secret : std::exchange(secrets, {})) {
        size_t ignored = 0;
        HOLDS(SecretList::instance().remove(secret.first, ignored) != nullptr);
    }
    for (const ProviderModel& provider : std::exchange(providers, {}))
        HOLDS(ask([&] { return table_->FreeProvider(provider.handle); }) == ERROR_SUCCESS);
    const TokenState left = token_.state();
    HOLDS(left.initialised == 0 && left.openSessions == 0 && left.userLoggedIn == 0);
    HOLDS(left.sequenceViolations == 0 && left.overlappingCalls == 0);
    // The entries that unknown handles get.
    ProviderManager::instance().clear();
    emptyEntries.clear();
    freedProviders.clear();
    freedKeys.clear();
}

void World::finishCall(const char* name, Reach reach, Answer& answer)
{
    ++callCount();
    const auto struck = token_.takeStruckFaults();
    answer.by.log = std::exchange(failingLog.failed, false);
    answer.by.memory = takeAllocationFailed();
    answer.by.lie = std::ranges::any_of(struck, lies);
    answer.by.claim = std::ranges::any_of(struck, claims);
    // For opening, a library that is in use has failed to start.
    const auto fails = [&](const StruckFault& each) {
        if (reach == Reach::library)
            return !lies(each);
        return failsSequence(each, before_.initialised != 0) &&
               !(rules.dialogAsksToken && isPinQuery(each));
    };
    const auto first = std::ranges::find_if(struck, fails);
    answer.by.token = first != struck.end();
    if (answer.by.token) {
        answer.by.tokenStatus = rules.statusOfFault(*first);
        answer.by.wantsLogin = returns(*first) && first->value == CKR_USER_NOT_LOGGED_IN;
    }
    if (showsCalls()) {
        std::fprintf(
            stderr, "%s: 0x%08X, %+ld blocks%s%s%s%s%s%s%s\n", name,
            static_cast<unsigned>(answer.status), answer.blocks,
            answer.left == Left::unknownHandle ? ", unknown handle" : "",
            answer.left == Left::logError ? ", log error" : "",
            answer.left == Left::noMemory ? ", no memory" : "",
            answer.by.token ? ", the token failed" : "", answer.by.lie ? ", the token lied" : "",
            answer.by.log ? ", the log failed" : "", answer.by.memory ? ", memory failed" : "");
        for (const StruckFault& each : struck)
            std::fprintf(stderr, "  %s: fault %u, 0x%X\n", each.function,
                         static_cast<unsigned>(each.fault), static_cast<unsigned>(each.value));
    }
    HOLDS(answer.left != Left::normally || answer.status != ERROR_SUCCESS ||
          GetLastError() == callersError);
    checkToken(reach, struck);
}

void World::checkToken(Reach reach, const std::vector<StruckFault>& struck)
{
    const TokenState now = token_.state();
    const Excuse excuse = excuseOf(struck);
    // Opening and freeing end what other users of the library have open.
    const bool ended = reach == Reach::library && now.initialised == 0 && before_.initialised != 0;
    const bool begun = rules.keepsLibrary && reach != Reach::module && before_.initialised == 0;
    const uint32_t sessions = ended ? 0 : before_.openSessions;
    const uint32_t logins = ended ? 0 : before_.userLoggedIn;
    HOLDS(now.initialised == before_.initialised || ended || begun || excuse.initialised);
    HOLDS(now.openSessions == sessions || excuse.session || excuse.initialised);
    HOLDS(now.userLoggedIn == logins || excuse.login || excuse.session || excuse.initialised);
    HOLDS(now.objects == before_.objects || excuse.session);
    HOLDS(now.sessionsFinalized == before_.sessionsFinalized + before_.openSessions - sessions ||
          excuse.session || excuse.initialised);
    HOLDS(now.loginsFinalized == before_.loginsFinalized + before_.userLoggedIn - logins ||
          excuse.login || excuse.session || excuse.initialised);
    const bool asBefore = (begun || now.initialised == (ended ? 0 : before_.initialised)) &&
                          now.openSessions == sessions && now.userLoggedIn == logins &&
                          now.objects == before_.objects;
    before_ = now;
    if (!asBefore)
        settleToken();
}

void World::settleToken()
{
    token_.clearFaults();
    library_.C_Finalize(nullptr);
    token_.takeStruckFaults();
    before_ = token_.state();
}

bool World::judge(const Answer& answer, const Expected& expected, Reach reach)
{
    if (showsCalls())
        std::fprintf(stderr, "  expected: 0x%08X%s\n", static_cast<unsigned>(expected.status),
                     expected.unknownHandle ? ", unknown handle" : "");
    rules.judge(answer, expected, reach);
    return answer.succeeded();
}

void World::setLog(bool on, uint32_t failingRecord)
{
    loggerSettings().types = on || failingRecord != 0 ? logToConsole : 0;
    failingLog.untilFailure = failingRecord;
}

PinOutcome World::pinOutcome() const
{
    PinOutcome outcome = std::ranges::find(rules.pins, pin_, &PinRow::pin)->outcome;
    if (before_.userLoggedIn != 0)
        outcome.loginFails = !rules.sharesLogin;
    return outcome;
}

size_t World::secretsInModule() const
{
    size_t size = 0;
    static_cast<void>(SecretList::instance().remove(0, size));
    return size;
}

void World::addKey(const char* certificate, const KeyFacts& facts, const Bytes& id, int pairs)
{
    const std::string name(certificate);
    token_.addCertificate(facts.name.empty() ? std::nullopt : std::optional(id),
                          fixtures_.at(name + ".der"));
    for (int pair = 0; pair < pairs; ++pair) {
        if (facts.rsa)
            token_.addRsaKeyPair(id, facts.bits);
        else
            token_.addEcKeyPair(id, facts.size());
    }
    KeyFacts key = facts;
    const Bytes& hex = fixtures_.at(name + ".spki.hex");
    key.publicKey = hexDecode(std::string(hex.begin(), hex.end()));
    key.onToken = pairs > 0;
    key.certificate = fixtures_.at(name + ".der");
    if (key.bits == 0 || (rules.filtersCertificates && key.name.empty()))
        return;
    // The certificates are self-signed.
    auto& keys = rules.filtersCertificates && !key.onToken ? authorities_ : tokenKeys_;
    keys.push_back(std::move(key));
}

void World::makeToken(uint8_t kind)
{
    token_.reset();
    token_.setRecording(false);
    tokenKeys_.clear();
    authorities_.clear();
    tokenPresent_ = kind % tokenKinds != 2;
    switch (kind % tokenKinds) {
    case 0:  // a token without anything
        break;
    case 1:  // a key that is there twice, a certificate without an identifier and one of no use
        addKey("rsa1024", {L"0A", true, 1024}, {0x0A}, 2);
        addKey("p521", {L"0521", false, 521}, {0x05, 0x21}, 1);
        addKey("p256", {L"", false, 256}, {}, 0);
        addKey("ed25519", {L"ED", false, 0}, {0xED}, 0);
        break;
    case 2:  // no token in any slot
        token_.addSlot(test::kSlot, test::kEmptySlotFlags, 0);
        break;
    default:  // the last one has no key objects
        addKey("rsa2048", {L"01AB", true, 2048}, {0x01, 0xAB}, 1);
        addKey("p256", {L"0256", false, 256}, {0x02, 0x56}, 1);
        addKey("p384", {L"0384", false, 384}, {0x03, 0x84}, 0);
        break;
    }
}

}  // namespace NV::fuzz
