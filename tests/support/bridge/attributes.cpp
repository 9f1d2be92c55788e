// Converts attribute templates for the native library and back.

#include "attributes.h"

#include <algorithm>
#include <cstring>
#include <iterator>

namespace NV::bridge {

namespace {

enum class Shape {
    bytes,    // the same in both layouts: byte strings, text, CK_BBOOL, CK_DATE
    number,   // one CK_ULONG
    numbers,  // an array of CK_ULONG
    nested,   // an array of CK_ATTRIBUTE
    unknown,  // vendor-defined, or newer than the table
};

constexpr CK_ATTRIBUTE_TYPE numberAttributes[] = {
    CKA_CLASS,
    CKA_CERTIFICATE_TYPE,
    CKA_CERTIFICATE_CATEGORY,
    CKA_JAVA_MIDP_SECURITY_DOMAIN,
    CKA_NAME_HASH_ALGORITHM,
    CKA_KEY_TYPE,
    CKA_MODULUS_BITS,
    CKA_PRIME_BITS,
    CKA_SUBPRIME_BITS,
    CKA_VALUE_BITS,
    CKA_VALUE_LEN,
    CKA_KEY_GEN_MECHANISM,
    CKA_AUTH_PIN_FLAGS,
    CKA_OTP_FORMAT,
    CKA_OTP_LENGTH,
    CKA_OTP_TIME_INTERVAL,
    CKA_OTP_CHALLENGE_REQUIREMENT,
    CKA_OTP_TIME_REQUIREMENT,
    CKA_OTP_COUNTER_REQUIREMENT,
    CKA_OTP_PIN_REQUIREMENT,
    CKA_HW_FEATURE_TYPE,
    CKA_PIXEL_X,
    CKA_PIXEL_Y,
    CKA_RESOLUTION,
    CKA_CHAR_ROWS,
    CKA_CHAR_COLUMNS,
    CKA_BITS_PER_PIXEL,
    CKA_MECHANISM_TYPE,
    CKA_PROFILE_ID,
};

constexpr CK_ATTRIBUTE_TYPE knownAttributes[] = {
#define NV_VALUE(name, value) value,
    NV_CKA_VALUES(NV_VALUE)
#undef NV_VALUE
};

// The maximum of numbers in one attribute. Lists of allowed mechanisms are much shorter; a wrong
// length from the caller must not become a huge allocation.
constexpr CK_ULONG mostNumbers = 65536;

Shape shapeOf(CK_ATTRIBUTE_TYPE type)
{
    switch (type) {
    case CKA_ALLOWED_MECHANISMS:
        return Shape::numbers;
    case CKA_WRAP_TEMPLATE:
    case CKA_UNWRAP_TEMPLATE:
    case CKA_DERIVE_TEMPLATE:
        return Shape::nested;
    case CKA_VENDOR_DEFINED:
        return Shape::unknown;
    default:
        break;
    }
    const auto isType = [type](CK_ATTRIBUTE_TYPE each) { return each == type; };
    if (std::any_of(std::begin(numberAttributes), std::end(numberAttributes), isType))
        return Shape::number;
    if (std::any_of(std::begin(knownAttributes), std::end(knownAttributes), isType))
        return Shape::bytes;
    return Shape::unknown;
}

// The caller's buffer need not be aligned.
CK_ULONG numberAt(const void* values, size_t index)
{
    CK_ULONG value = 0;
    std::memcpy(&value, static_cast<const CK_BYTE*>(values) + index * sizeof(value), sizeof(value));
    return value;
}

void setNumberAt(void* values, size_t index, CK_ULONG value)
{
    std::memcpy(static_cast<CK_BYTE*>(values) + index * sizeof(value), &value, sizeof(value));
}

}  // namespace

InputTemplate::InputTemplate(const CK_ATTRIBUTE* attributes, CK_ULONG count)
    : null_{attributes == nullptr}, count_{count}
{
    if (attributes == nullptr)
        return;
    attributes_.reserve(size_t{1});
    for (CK_ULONG i = 0; i < count; ++i)
        add(attributes[i]);
}

void InputTemplate::add(const CK_ATTRIBUTE& attribute)
{
    if (attribute.ulValueLen == unavailable)
        throw Failure{CKR_ATTRIBUTE_VALUE_INVALID};

    native::CK_ATTRIBUTE converted{};
    converted.type = attribute.type;
    switch (shapeOf(attribute.type)) {
    case Shape::bytes:
        converted.pValue = attribute.pValue;
        converted.ulValueLen = attribute.ulValueLen;
        break;
    case Shape::number:
        if (attribute.ulValueLen != sizeof(CK_ULONG))
            throw Failure{CKR_ATTRIBUTE_VALUE_INVALID};
        [[fallthrough]];
    case Shape::numbers: {
        std::vector<native::CK_ULONG>& numbers = hold(attribute);
        converted.pValue = attribute.pValue != nullptr ? numbers.data() : nullptr;
        converted.ulValueLen = numbers.size() * sizeof(native::CK_ULONG);
        break;
    }
    case Shape::nested:
        throw Failure{CKR_FUNCTION_NOT_SUPPORTED};
    case Shape::unknown:
        throw Failure{CKR_ATTRIBUTE_TYPE_INVALID};
    }
    attributes_.push_back(converted);
}

std::vector<native::CK_ULONG>& InputTemplate::hold(const CK_ATTRIBUTE& attribute)
{
    const CK_ULONG size = attribute.ulValueLen / CK_ULONG{sizeof(CK_ULONG)};
    if (attribute.ulValueLen % sizeof(CK_ULONG) != 0 || size > mostNumbers)
        throw Failure{CKR_ATTRIBUTE_VALUE_INVALID};

    std::vector<native::CK_ULONG>& numbers = numbers_.emplace_back(size);
    if (attribute.pValue != nullptr) {
        for (size_t i = 0; i < numbers.size(); ++i)
            numbers[i] = widenAmount(numberAt(attribute.pValue, i));
    }
    return numbers;
}

native::CK_ATTRIBUTE* InputTemplate::data()
{
    return null_ ? nullptr : attributes_.data();
}

native::CK_ULONG InputTemplate::count() const
{
    return count_;
}

OutputTemplate::OutputTemplate(CK_ATTRIBUTE* attributes, CK_ULONG count)
    : null_{attributes == nullptr}, count_{count}
{
    if (attributes == nullptr)
        return;
    attributes_.reserve(size_t{1});
    for (CK_ULONG i = 0; i < count; ++i)
        add(attributes[i]);
}

void OutputTemplate::add(CK_ATTRIBUTE& attribute)
{
    const Shape shape = shapeOf(attribute.type);
    if (shape == Shape::nested || shape == Shape::unknown) {
        refused_.push_back(&attribute);
        return;
    }

    native::CK_ATTRIBUTE converted{};
    converted.type = attribute.type;
    Entry entry{&attribute, {}, shape != Shape::bytes};
    if (!entry.holdsNumbers) {
        converted.pValue = attribute.pValue;
        converted.ulValueLen = attribute.ulValueLen;
    } else if (attribute.pValue != nullptr) {
        // One more than requested, so that a buffer for no number is not a null pointer.
        const CK_ULONG room =
            std::min(attribute.ulValueLen / CK_ULONG{sizeof(CK_ULONG)}, mostNumbers);
        entry.numbers.resize(size_t{room} + 1);
        converted.pValue = entry.numbers.data();
        converted.ulValueLen = room * sizeof(native::CK_ULONG);
    }
    attributes_.push_back(converted);
    entries_.push_back(std::move(entry));  // moving a vector leaves its elements in place
}

native::CK_ATTRIBUTE* OutputTemplate::data()
{
    return null_ ? nullptr : attributes_.data();
}

native::CK_ULONG OutputTemplate::count() const
{
    return null_ ? count_ : attributes_.size();
}

void OutputTemplate::copyBack(const Entry& entry, const native::CK_ATTRIBUTE& filled)
{
    CK_ATTRIBUTE& caller = *entry.caller;
    if (filled.ulValueLen == nativeUnavailable) {
        caller.ulValueLen = unavailable;
        return;
    }
    if (!entry.holdsNumbers) {
        caller.ulValueLen = narrowAmount(filled.ulValueLen);
        return;
    }

    const native::CK_ULONG size = filled.ulValueLen / sizeof(native::CK_ULONG);
    if (filled.ulValueLen % sizeof(native::CK_ULONG) != 0)
        throw Failure{CKR_GENERAL_ERROR};
    if (caller.pValue != nullptr) {
        // If the library reports more values than the buffer has room for, the rest does not exist.
        if (size >= entry.numbers.size())
            throw Failure{CKR_GENERAL_ERROR};
        for (size_t i = 0; i < size; ++i)
            setNumberAt(caller.pValue, i, narrowAmount(entry.numbers[i]));
    }
    caller.ulValueLen = narrowAmount(size * sizeof(CK_ULONG));
}

CK_RV OutputTemplate::finish(CK_RV result)
{
    // After any other return value the native library has not filled the template.
    if (result != CKR_OK && result != CKR_ATTRIBUTE_SENSITIVE &&
        result != CKR_ATTRIBUTE_TYPE_INVALID && result != CKR_BUFFER_TOO_SMALL)
        return result;

    for (CK_ATTRIBUTE* attribute : refused_) {
        attribute->ulValueLen = unavailable;
        if (result == CKR_OK)
            result = CKR_ATTRIBUTE_TYPE_INVALID;
    }
    for (size_t i = 0; i < entries_.size(); ++i) {
        try {
            copyBack(entries_[i], attributes_[i]);
        } catch (const Failure& failure) {
            entries_[i].caller->ulValueLen = unavailable;
            result = failure.value;
        }
    }
    return result;
}

}  // namespace NV::bridge
