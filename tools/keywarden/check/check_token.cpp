// Steps on slots and tokens: which ones exist, which slot the provider uses, the state of the PIN.

#include "check/check.h"
#include "p11/p11text.h"
#include "system/public_session.h"
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
    std::string text = "slot " + std::to_string(slot.id()) + ": \"" + field(token.label) +
                       "\", serial " + field(token.serialNumber);
    for (const FlagText& row : flagTexts) {
        if ((token.flags & row.flag) != 0)
            text += std::string(", ") + row.text;
    }
    return text;
}

// The first call of the discovery that fails, with its result.
std::string failingCall(Pkcs11& p11)
{
    // In modern, the library stays initialized.
    const bool joined = p11.module()->joined();
    CK_RV rv = joined ? CKR_OK : p11.C_Initialize(nullptr);
    if (rv != CKR_OK)
        return std::string("C_Initialize: ") + returnValueText(rv);
    CK_INFO info{};
    CK_ULONG count = 0;
    std::string failing;
    if ((rv = p11.C_GetInfo(&info)) != CKR_OK)
        failing = std::string("C_GetInfo: ") + returnValueText(rv);
    else if ((rv = p11.C_GetSlotList(CK_TRUE, nullptr, &count)) != CKR_OK)
        failing = std::string("C_GetSlotList: ") + returnValueText(rv);
    if (!joined && (rv = p11.C_Finalize(nullptr)) != CKR_OK && failing.empty())
        failing = std::string("C_Finalize: ") + returnValueText(rv);
    return failing.empty() ? "a second attempt succeeded" : failing;
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
    if (findings.p11 == nullptr) {
        findings.skip("slots", "there is no library to query");
        return;
    }
    if (!findings.discovered) {
        findings.fail(
            "slots", "the library does not list its slots; " + failingCall(*findings.p11),
            "Check the library's configuration and log, and whether its service is running.");
        return;
    }
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
        findings.fail("chosen-slot", "no token is initialised, so the provider has no keys",
                      "Initialise the token with the vendor's tool.");
        return;
    }
    findings.ok("chosen-slot", "slot " + std::to_string(findings.slot->id()) +
                                   ", the first with an initialised token");
    checkPin(findings, findings.slot->tokenInfo());
}

}  // namespace NV::tool
