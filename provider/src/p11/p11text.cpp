// The tables of names, and the texts of the structures.

#include "p11/p11text.h"

#include <algorithm>
#include <array>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <span>
#include <string_view>

#include "logger/logger.h"

namespace NV {

namespace {

struct Name {
    uint32_t value;
    const char* text;
};

#define NV_NAME(name, value) Name{value, #name},
constexpr Name returnValues[] = {NV_CKR_VALUES(NV_NAME)};
constexpr Name attributes[] = {NV_CKA_VALUES(NV_NAME)};
constexpr Name mechanisms[] = {NV_CKM_VALUES(NV_NAME)};
#undef NV_NAME

// Compat: two mechanisms that the log spells differently from the standard; people search logs for
// them.
constexpr Name mechanismSpellings[] = {
    {CKM_KIP_DERIVE, "CKM_KIP_DERIVE\t"},
    {CKM_DSA_PROBABILISTIC_PARAMETER_GEN, "CKM_DSA_PROBABLISTIC_PARAMETER_GEN"},
};

#define NV_CLASS(name, number)                                                                     \
    Name                                                                                           \
    {                                                                                              \
        name, #name "(" number ")"                                                                 \
    }
constexpr Name objectClasses[] = {
    NV_CLASS(CKO_DATA, "0"),
    NV_CLASS(CKO_CERTIFICATE, "1"),
    NV_CLASS(CKO_PUBLIC_KEY, "2"),
    NV_CLASS(CKO_PRIVATE_KEY, "3"),
    NV_CLASS(CKO_SECRET_KEY, "4"),
    NV_CLASS(CKO_HW_FEATURE, "5"),
    NV_CLASS(CKO_DOMAIN_PARAMETERS, "6"),
    NV_CLASS(CKO_OTP_KEY, "8"),
    NV_CLASS(CKO_PROFILE, "9"),
    NV_CLASS(CKO_VENDOR_DEFINED, "0x80000000"),
};
#undef NV_CLASS

#define NV_FLAG(name)                                                                              \
    Name                                                                                           \
    {                                                                                              \
        name, #name                                                                                \
    }
constexpr Name slotFlags[] = {NV_FLAG(CKF_TOKEN_PRESENT), NV_FLAG(CKF_REMOVABLE_DEVICE),
                              NV_FLAG(CKF_HW_SLOT)};

// Compat: CKF_USER_PIN_LOCKED, CKF_USER_PIN_TO_BE_CHANGED, CKF_SO_PIN_COUNT_LOW and
// CKF_SO_PIN_FINAL_TRY have no name here; they appear only in the hexadecimal number.
constexpr Name tokenFlags[] = {
    NV_FLAG(CKF_RNG),
    NV_FLAG(CKF_WRITE_PROTECTED),
    NV_FLAG(CKF_LOGIN_REQUIRED),
    NV_FLAG(CKF_USER_PIN_INITIALIZED),
    NV_FLAG(CKF_RESTORE_KEY_NOT_NEEDED),
    NV_FLAG(CKF_CLOCK_ON_TOKEN),
    NV_FLAG(CKF_PROTECTED_AUTHENTICATION_PATH),
    NV_FLAG(CKF_DUAL_CRYPTO_OPERATIONS),
    NV_FLAG(CKF_TOKEN_INITIALIZED),
    NV_FLAG(CKF_SECONDARY_AUTHENTICATION),
    NV_FLAG(CKF_USER_PIN_COUNT_LOW),
    NV_FLAG(CKF_USER_PIN_FINAL_TRY),
    NV_FLAG(CKF_SO_PIN_LOCKED),
    NV_FLAG(CKF_SO_PIN_TO_BE_CHANGED),
    NV_FLAG(CKF_ERROR_STATE),
};
constexpr Name sessionFlags[] = {NV_FLAG(CKF_RW_SESSION), NV_FLAG(CKF_SERIAL_SESSION)};
#undef NV_FLAG

consteval bool ascends(std::span<const Name> names)
{
    return std::ranges::adjacent_find(names, [](const Name& a, const Name& b) {
               return a.value >= b.value;
           }) == names.end();
}

static_assert(ascends(returnValues) && ascends(attributes) && ascends(mechanisms));
static_assert(ascends(mechanismSpellings) && ascends(objectClasses));
static_assert(ascends(slotFlags) && ascends(tokenFlags) && ascends(sessionFlags));

const char* find(std::span<const Name> names, uint32_t value)
{
    const auto row = std::ranges::lower_bound(names, value, {}, &Name::value);
    return row != names.end() && row->value == value ? row->text : nullptr;
}

constexpr size_t bufferSize = 256;
using Buffer = std::array<char, bufferSize>;

constexpr const char* unknown = "UNKNOWN";

// The names of the set bits in ascending order, separated by commas. Bits without a name are left
// out.
std::string flagNames(std::span<const Name> names, CK_FLAGS flags)
{
    std::string text;
    for (const Name& flag : names) {
        if ((flags & flag.value) == 0)
            continue;
        if (!text.empty())
            text += ',';
        text += flag.text;
    }
    return text;
}

// A blank-padded field, which has no terminator, without the blanks at both ends.
template <size_t N>
std::string trimmed(const CK_UTF8CHAR (&field)[N])
{
    std::string text(std::begin(field), std::end(field));
    const size_t first = text.find_first_not_of(' ');
    if (first == std::string::npos)
        return {};
    return text.substr(first, text.find_last_not_of(' ') - first + 1);
}

// Collects "name=value," fields between braces.
class Rendering {
public:
    Rendering& append(const char* format, ...) NV_PRINTF(2, 3)
    {
        char piece[bufferSize];
        va_list arguments;  // NOLINT(cppcoreguidelines-init-variables): va_start does it
        va_start(arguments, format);
        std::vsnprintf(piece, sizeof piece, format, arguments);
        va_end(arguments);
        text_ += piece;
        return *this;
    }

    // A zero byte ends the value, as with "%s": some tokens pad with zeros.
    Rendering& field(const char* name, const std::string& value)
    {
        text_.append(name).append("=").append(value, 0, value.find('\0')).append(",");
        return *this;
    }

    Rendering& flags(CK_FLAGS flags, std::span<const Name> names)
    {
        append("flags=0x%x[", flags);
        text_ += flagNames(names, flags) + "],";
        return *this;
    }

    Rendering& version(const char* name, const CK_VERSION& version)
    {
        return append("%s=%d.%d,", name, version.major, version.minor);
    }

    // Ends the text. Removes the comma of the last field.
    std::string finish()
    {
        if (text_.back() == ',')
            text_.pop_back();
        return text_ + "}";
    }

private:
    std::string text_ = "{";
};

}  // namespace

const char* returnValueText(CK_RV value)
{
    thread_local Buffer buffer;
    const char* name = find(returnValues, value);
    if (name == nullptr)
        return unknown;
    std::snprintf(buffer.data(), buffer.size(), "%08x(%s)", value, name);
    return buffer.data();
}

const char* mechanismText(CK_MECHANISM_TYPE type)
{
    const char* name = find(mechanismSpellings, type);
    if (name == nullptr)
        name = find(mechanisms, type);
    return name != nullptr ? name : unknown;
}

const char* attributeText(CK_ATTRIBUTE_TYPE type)
{
    thread_local Buffer buffer;
    const char* name = find(attributes, type);
    if (name == nullptr)
        return unknown;
    std::snprintf(buffer.data(), buffer.size(), "%s(%d)", name, static_cast<int>(type));
    return buffer.data();
}

std::string objectClassText(const void* value, CK_ULONG length)
{
    uint32_t number = 0;
    if (value == nullptr || length != sizeof number)
        return {};
    std::memcpy(&number, value, sizeof number);
    const char* name = find(objectClasses, number);
    return name != nullptr ? name : "";
}

std::string toText(const CK_ATTRIBUTE& attribute)
{
    Rendering text;
    text.field("type", attributeText(attribute.type));
    const std::string objectClass = objectClassText(attribute.pValue, attribute.ulValueLen);
    if (objectClass.empty())
        text.append("pValue=%p,", attribute.pValue);
    else
        text.field("pValue", objectClass);
    return text.append("ulValueLen=%d", static_cast<int>(attribute.ulValueLen)).finish();
}

std::string toText(const CK_INFO& info)
{
    return Rendering()
        .version("cryptokiVersion", info.cryptokiVersion)
        .field("manufacturerID", trimmed(info.manufacturerID))
        .append("flags=0x%x[must be zero],", info.flags)
        .field("libraryDescription", trimmed(info.libraryDescription))
        .version("libraryVersion", info.libraryVersion)
        .finish();
}

std::string toText(const CK_SLOT_INFO& info)
{
    return Rendering()
        .field("slotDescription", trimmed(info.slotDescription))
        .field("manufacturerID", trimmed(info.manufacturerID))
        .flags(info.flags, slotFlags)
        .version("hardwareVersion", info.hardwareVersion)
        .version("firmwareVersion", info.firmwareVersion)
        .finish();
}

std::string toText(const CK_TOKEN_INFO& info)
{
    const auto number = [](CK_ULONG value) { return static_cast<int>(value); };
    return Rendering()
        .field("label", trimmed(info.label))
        .field("manufacturerID", trimmed(info.manufacturerID))
        .field("model", trimmed(info.model))
        .field("serialNumber", trimmed(info.serialNumber))
        .flags(info.flags, tokenFlags)
        .append("ulMaxSessionCount=%d,", number(info.ulMaxSessionCount))
        .append("ulSessionCount=%d,", number(info.ulSessionCount))
        .append("ulMaxRwSessionCount=%d,", number(info.ulMaxRwSessionCount))
        .append("ulRwSessionCount=%d,", number(info.ulRwSessionCount))
        .append("ulMaxPinLen=%d,", number(info.ulMaxPinLen))
        .append("ulMinPinLen=%d,", number(info.ulMinPinLen))
        .append("ulTotalPublicMemory=%d,", number(info.ulTotalPublicMemory))
        .append("ulFreePublicMemory=%d,", number(info.ulFreePublicMemory))
        .append("ulTotalPrivateMemory=%d,", number(info.ulTotalPrivateMemory))
        .append("ulFreePrivateMemory=%d,", number(info.ulFreePrivateMemory))
        .version("hardwareVersion", info.hardwareVersion)
        .version("firmwareVersion", info.firmwareVersion)
        .field("utcTime", std::string(std::begin(info.utcTime), std::end(info.utcTime)))
        .finish();
}

std::string toText(const CK_SESSION_INFO& info)
{
    Rendering text;
    text.append("slotID=%ld,", static_cast<long>(static_cast<int32_t>(info.slotID)));
    text.append("state=%d,", static_cast<int>(info.state)).flags(info.flags, sessionFlags);
    return text.append("ulDeviceError=0x%lx", static_cast<unsigned long>(info.ulDeviceError))
        .finish();
}

std::string toText(const CK_FUNCTION_LIST& list)
{
    Rendering text;
    text.version("version", list.version);
#define NV_ENTRY(name, parameters)                                                                 \
    text.append(#name "=%p,", reinterpret_cast<const void*>(list.name));
    NV_CK_FUNCTIONS(NV_ENTRY)
#undef NV_ENTRY
    return text.finish();
}

}  // namespace NV
