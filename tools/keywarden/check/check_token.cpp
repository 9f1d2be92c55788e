// Steps on slots and tokens: which ones exist, which slot the provider uses, the state of the PIN.

#include <algorithm>
#include <string>
#include <vector>

#include "check/check.h"
#include "text.h"

namespace NV::tool {

namespace {

// A field of a PKCS#11 structure without its padding.
template <size_t size>
std::string field(const CK_UTF8CHAR (&bytes)[size])
{
    std::string text(bytes, bytes + size);
    text.erase(text.find_last_not_of(std::string_view(" \0", 2)) + 1);
    return text;
}

struct FlagText {
    CK_FLAGS flag;
    const char* text;
};

constexpr FlagText flagTexts[] = {
    {CKF_TOKEN_INITIALIZED, "initialised"},
    {CKF_WRITE_PROTECTED, "write-protected"},
    {CKF_LOGIN_REQUIRED, "login required"},
    {CKF_USER_PIN_INITIALIZED, "PIN set"},
    {CKF_PROTECTED_AUTHENTICATION_PATH, "own PIN pad"},
    {CKF_USER_PIN_COUNT_LOW, "a wrong PIN was entered"},
    {CKF_USER_PIN_FINAL_TRY, "last PIN try"},
    {CKF_USER_PIN_LOCKED, "PIN locked"},
    {CKF_USER_PIN_TO_BE_CHANGED, "PIN must be changed"},
};

std::string describe(const P11Slot& slot)
{
    const CK_TOKEN_INFO& token = slot.tokenInfo();
    if (slot.id() == 0 && token.label[0] == 0)
        return "a token that cannot be read";
    std::vector<std::string> parts;
    if (const std::string label = field(token.label); !label.empty())
        parts.push_back("\"" + label + "\"");
    if (const std::string serial = field(token.serialNumber); !serial.empty())
        parts.push_back("serial " + serial);
    if ((token.flags & CKF_TOKEN_INITIALIZED) == 0)
        parts.emplace_back("not initialised");
    for (const FlagText& row : flagTexts) {
        if ((token.flags & row.flag) != 0)
            parts.emplace_back(row.text);
    }
    return "slot " + std::to_string(slot.id()) + ": " + joined(parts);
}

// Results that only say who has initialised the library.
bool isNoFailure(const FailedCall& call)
{
    return call.rv == CKR_CRYPTOKI_ALREADY_INITIALIZED || call.rv == CKR_CRYPTOKI_NOT_INITIALIZED;
}

// The call of the discovery that failed.
std::string failingCall(const CallWatch& watch)
{
    for (const char* function : {"C_Initialize", "C_GetInfo", "C_GetSlotList", "C_Finalize"}) {
        const FailedCall* failed = watch.failureOf(function);
        if (failed != nullptr && !isNoFailure(*failed))
            return describe(*failed);
    }
    return "a function is missing, or gave a result that cannot be true";
}

constexpr const char* serviceAdvice =
    "Check the library's configuration and log, and whether its service is running.";

// Begins the step "slots", and ends it if the library does not list them.
bool discover(Findings& findings)
{
    constexpr const char* name = "slots";
    if (findings.p11 == nullptr) {
        findings.skip(name, "there is no library to query");
        return false;
    }
    findings.begin(name);
    findings.discovered = findings.p11->sharedModule()->init();
    if (!findings.discovered)
        findings.fail(name, "the library does not list its slots; " + failingCall(*findings.watch),
                      serviceAdvice);
    return findings.discovered;
}

// No slot has a token that the provider can use. A token that cannot be read may be initialised.
void reportNoChoice(Findings& findings)
{
    constexpr const char* name = "chosen-slot";
    const FailedCall* unread = findings.watch->failureOf("C_GetTokenInfo");
    if (unread == nullptr)
        unread = findings.watch->failureOf("C_GetSlotInfo");
    if (unread != nullptr)
        findings.fail(
            name, "the token cannot be read: " + describe(*unread),
            "Remove the token and insert it again. Check with the vendor's tool whether it "
            "can read the token.");
    else
        findings.fail(name, "no token is initialised, so the provider has no keys",
                      "Initialise the token with the vendor's tool.");
}

bool isUsable(const P11Slot& slot)
{
    return (slot.slotInfo().flags & CKF_TOKEN_PRESENT) != 0 &&
           (slot.tokenInfo().flags & CKF_TOKEN_INITIALIZED) != 0;
}

void reportChoice(Findings& findings)
{
    constexpr const char* name = "chosen-slot";
    const auto usable = std::ranges::count_if(findings.p11->module()->slots(),
                                              [](const auto& slot) { return isUsable(*slot); });
    const std::string text = "slot " + std::to_string(findings.slot->id()) + ", the first ";
    if (usable > 1)
        findings.warn(
            name, text + "of " + std::to_string(usable) + " with an initialised token",
            "The provider uses the first one only. Remove the other tokens, or hide their "
            "slots in the library's settings.");
    else
        findings.ok(name, text + "with an initialised token");
}

void checkPin(Findings& findings, const CK_TOKEN_INFO& token)
{
    constexpr const char* name = "pin";
    const auto has = [&token](CK_FLAGS flag) { return (token.flags & flag) != 0; };
    if (has(CKF_USER_PIN_LOCKED))
        findings.fail(name, "the PIN is locked",
                      "Ask the token's security officer to unlock it with the vendor's tool.");
    else if (!has(CKF_USER_PIN_INITIALIZED) && has(CKF_LOGIN_REQUIRED))
        findings.fail(name, "no PIN has been set", "Set one with the vendor's tool.");
    else if (has(CKF_USER_PIN_FINAL_TRY))
        findings.warn(name, "one more wrong PIN will lock the token",
                      "Make sure that you have the correct PIN before the next signature.");
    else if (has(CKF_USER_PIN_COUNT_LOW))
        findings.warn(name, "a wrong PIN was entered since the last correct one",
                      "The correct PIN resets the count.");
    else if (has(CKF_USER_PIN_TO_BE_CHANGED))
        findings.warn(name, "the token requires a new PIN", "Change it with the vendor's tool.");
    else
        findings.ok(name, std::to_string(token.ulMinPinLen) + " to " +
                              std::to_string(token.ulMaxPinLen) + " characters, not locked");
}

}  // namespace

void checkTokens(Findings& findings)
{
    if (!discover(findings))
        return;
    const auto& slots = findings.p11->module()->slots();
    if (slots.empty()) {
        findings.fail("slots", "no slot contains a token",
                      "Insert the card or connect the token, and check that the reader's driver is "
                      "installed.");
        return;
    }
    findings.ok("slots", std::to_string(slots.size()) + " with a token");
    for (const auto& slot : slots)
        findings.detail(describe(*slot));
    findings.slot = findings.p11->module()->firstActiveSlot();
    if (findings.slot == nullptr) {
        reportNoChoice(findings);
        return;
    }
    reportChoice(findings);
    checkPin(findings, findings.slot->tokenInfo());
}

void checkAnswer(Findings& findings)
{
    if (discover(findings))
        findings.ok("slots", "the library lists its slots");
}

}  // namespace NV::tool
