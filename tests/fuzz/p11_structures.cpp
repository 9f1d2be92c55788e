// The structures that a token fills, as text. The first byte of the input selects the structure,
// the rest is its memory.

#include <cstdio>
#include <cstring>
#include <sstream>
#include <string_view>

#include "p11/p11text.h"
#include "target.h"

namespace NV::fuzz {

namespace {

// The structures of a library are packed and can be at any address.
template <typename Structure>
Structure filled(Input& input)
{
    Structure structure{};
    const Bytes bytes = input.bytes(sizeof structure);
    if (!bytes.empty())
        std::memcpy(&structure, bytes.data(), bytes.size());
    return structure;
}

// The characters of a field without the blanks at both ends, up to the first zero among them.
template <size_t N>
std::string shown(const CK_UTF8CHAR (&field)[N])
{
    size_t begin = 0;
    size_t end = N;
    while (begin < end && field[begin] == ' ')
        ++begin;
    while (end > begin && field[end - 1] == ' ')
        --end;
    std::string text;
    for (; begin < end && field[begin] != 0; ++begin)
        text.push_back(static_cast<char>(field[begin]));
    return text;
}

std::string shown(const CK_VERSION& version)
{
    return std::to_string(version.major) + "." + std::to_string(version.minor);
}

std::string signedNumber(CK_ULONG value)
{
    return std::to_string(static_cast<int32_t>(value));
}

std::string hexadecimal(CK_ULONG value)
{
    std::ostringstream text;
    text << "0x" << std::hex << value;
    return text.str();
}

// Names by bit; null for a bit without one.
using FlagNames = const char* const (&)[32];

constexpr const char* slotFlags[32] = {"CKF_TOKEN_PRESENT", "CKF_REMOVABLE_DEVICE", "CKF_HW_SLOT"};
constexpr const char* sessionFlags[32] = {nullptr, "CKF_RW_SESSION", "CKF_SERIAL_SESSION"};
constexpr const char* tokenFlags[32] = {"CKF_RNG",
                                        "CKF_WRITE_PROTECTED",
                                        "CKF_LOGIN_REQUIRED",
                                        "CKF_USER_PIN_INITIALIZED",
                                        nullptr,
                                        "CKF_RESTORE_KEY_NOT_NEEDED",
                                        "CKF_CLOCK_ON_TOKEN",
                                        nullptr,
                                        "CKF_PROTECTED_AUTHENTICATION_PATH",
                                        "CKF_DUAL_CRYPTO_OPERATIONS",
                                        "CKF_TOKEN_INITIALIZED",
                                        "CKF_SECONDARY_AUTHENTICATION",
                                        nullptr,
                                        nullptr,
                                        nullptr,
                                        nullptr,
                                        "CKF_USER_PIN_COUNT_LOW",
                                        "CKF_USER_PIN_FINAL_TRY",
                                        nullptr,
                                        nullptr,
                                        nullptr,
                                        nullptr,
                                        "CKF_SO_PIN_LOCKED",
                                        "CKF_SO_PIN_TO_BE_CHANGED",
                                        "CKF_ERROR_STATE"};

std::string shown(CK_FLAGS flags, FlagNames names)
{
    std::string text;
    for (size_t bit = 0; bit < 32; ++bit) {
        if ((flags >> bit & 1) != 0 && names[bit] != nullptr)
            text += (text.empty() ? "" : ",") + std::string(names[bit]);
    }
    return hexadecimal(flags) + "[" + text + "]";
}

void checkInfo(const CK_INFO& info)
{
    HOLDS(toText(info) == "{cryptokiVersion=" + shown(info.cryptokiVersion) +
                              ",manufacturerID=" + shown(info.manufacturerID) +
                              ",flags=" + hexadecimal(info.flags) + "[must be zero]" +
                              ",libraryDescription=" + shown(info.libraryDescription) +
                              ",libraryVersion=" + shown(info.libraryVersion) + "}");
}

void checkSlot(const CK_SLOT_INFO& info)
{
    HOLDS(toText(info) == "{slotDescription=" + shown(info.slotDescription) +
                              ",manufacturerID=" + shown(info.manufacturerID) +
                              ",flags=" + shown(info.flags, slotFlags) +
                              ",hardwareVersion=" + shown(info.hardwareVersion) +
                              ",firmwareVersion=" + shown(info.firmwareVersion) + "}");
}

void checkToken(const CK_TOKEN_INFO& info)
{
    const std::string time(std::begin(info.utcTime),
                           std::find(std::begin(info.utcTime), std::end(info.utcTime), 0));
    std::string expected =
        "{label=" + shown(info.label) + ",manufacturerID=" + shown(info.manufacturerID) +
        ",model=" + shown(info.model) + ",serialNumber=" + shown(info.serialNumber) +
        ",flags=" + shown(info.flags, tokenFlags) +
        ",ulMaxSessionCount=" + signedNumber(info.ulMaxSessionCount) +
        ",ulSessionCount=" + signedNumber(info.ulSessionCount) +
        ",ulMaxRwSessionCount=" + signedNumber(info.ulMaxRwSessionCount) +
        ",ulRwSessionCount=" + signedNumber(info.ulRwSessionCount) +
        ",ulMaxPinLen=" + signedNumber(info.ulMaxPinLen) +
        ",ulMinPinLen=" + signedNumber(info.ulMinPinLen) +
        ",ulTotalPublicMemory=" + signedNumber(info.ulTotalPublicMemory) +
        ",ulFreePublicMemory=" + signedNumber(info.ulFreePublicMemory) +
        ",ulTotalPrivateMemory=" + signedNumber(info.ulTotalPrivateMemory) +
        ",ulFreePrivateMemory=" + signedNumber(info.ulFreePrivateMemory) +
        ",hardwareVersion=" + shown(info.hardwareVersion) +
        ",firmwareVersion=" + shown(info.firmwareVersion) + ",utcTime=" + time + "}";
    HOLDS(toText(info) == expected);
}

void checkSession(const CK_SESSION_INFO& info)
{
    HOLDS(toText(info) == "{slotID=" + signedNumber(info.slotID) +
                              ",state=" + signedNumber(info.state) +
                              ",flags=" + shown(info.flags, sessionFlags) +
                              ",ulDeviceError=" + hexadecimal(info.ulDeviceError) + "}");
}

// The value is in a block of exactly its size, at an odd address. Only a value of four bytes is
// read.
void checkAttribute(Input& input)
{
    const CK_ATTRIBUTE_TYPE type = input.number();
    const CK_ULONG length = input.number();
    const Bytes value = input.bytes(length);
    Bytes block(1);
    block.insert(block.end(), value.begin(), value.end());
    block.resize(length == 4 ? 5 : block.size());
    const CK_ATTRIBUTE attribute{type, block.data() + 1, length};

    std::ostringstream expected;
    expected << "{type=" << attributeText(type) << ",pValue=";
    const uint32_t number = length == 4 ? numberAt(block, 1) : ~0U;
    const bool isClass = number < 10 ? number != 7 : length == 4 && number == CKO_VENDOR_DEFINED;
    if (isClass) {
        constexpr const char* names[] = {
            "DATA",       "CERTIFICATE",       "PUBLIC_KEY", "PRIVATE_KEY", "SECRET_KEY",
            "HW_FEATURE", "DOMAIN_PARAMETERS", "",           "OTP_KEY",     "PROFILE"};
        expected << "CKO_" << (number < 10 ? names[number] : "VENDOR_DEFINED") << "(";
        expected << (number < 10 ? std::to_string(number) : hexadecimal(number)) << ")";
    } else {
        // As the C library writes it, which the stand-in for Windows replaces.
        char pointer[32];
        std::snprintf(pointer, sizeof pointer, "%p", static_cast<const void*>(block.data() + 1));
        expected << pointer;
    }
    expected << ",ulValueLen=" << signedNumber(length) << "}";
    HOLDS(toText(attribute) == expected.str());
}

void checkFunctionList(const CK_FUNCTION_LIST& list)
{
    const std::string text = toText(list);
    HOLDS(text.starts_with("{version=" + shown(list.version) + ",C_Initialize="));
    HOLDS(text.ends_with("}") && std::count(text.begin(), text.end(), ',') == 68);
    std::string_view left = text;
    const auto entry = [&left](std::string_view name, const void* address) {
        char expected[64];
        std::snprintf(expected, sizeof expected, ",%.*s=%p", static_cast<int>(name.size()),
                      name.data(), address);
        left.remove_prefix(std::min(left.find(','), left.size()));
        HOLDS(left.starts_with(expected));
        left.remove_prefix(std::string_view(expected).size());
    };
#define NV_ENTRY(name, parameters) entry(#name, reinterpret_cast<const void*>(list.name));
    NV_CK_FUNCTIONS(NV_ENTRY)
#undef NV_ENTRY
    HOLDS(left == "}");
}

}  // namespace

}  // namespace NV::fuzz

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    using namespace NV::fuzz;
    Input input(data, size);
    switch (input.byte()) {
    case 'i':
        checkInfo(filled<CK_INFO>(input));
        break;
    case 's':
        checkSlot(filled<CK_SLOT_INFO>(input));
        break;
    case 't':
        checkToken(filled<CK_TOKEN_INFO>(input));
        break;
    case 'n':
        checkSession(filled<CK_SESSION_INFO>(input));
        break;
    case 'a':
        checkAttribute(input);
        break;
    case 'f':
        checkFunctionList(filled<CK_FUNCTION_LIST>(input));
        break;
    default:
        break;
    }
    return 0;
}
