// Attribute templates on their way to the native library and back. Used by the exports that take
// templates; knows which attributes hold a CK_ULONG and so change their width.

#pragma once

#include <deque>
#include <optional>
#include <vector>

#include "convert.h"

namespace NV::bridge {

// A template whose values the native library reads (C_CreateObject, C_FindObjectsInit, ...).
// Byte values stay where the caller has them; numbers are held here in their native width.
class InputTemplate {
public:
    // Throws Failure: CKR_FUNCTION_NOT_SUPPORTED for an attribute that contains a template,
    // CKR_ATTRIBUTE_TYPE_INVALID for one whose shape is not known, CKR_ATTRIBUTE_VALUE_INVALID for
    // a number of the wrong length and for the length (CK_ULONG)-1.
    InputTemplate(const CK_ATTRIBUTE* attributes, CK_ULONG count);

    InputTemplate(const InputTemplate&) = delete;
    InputTemplate& operator=(const InputTemplate&) = delete;

    native::CK_ATTRIBUTE* data();
    native::CK_ULONG count() const;

private:
    void add(const CK_ATTRIBUTE& attribute);
    std::vector<native::CK_ULONG>& hold(const CK_ATTRIBUTE& attribute);

    bool null_;
    CK_ULONG count_;
    std::vector<native::CK_ATTRIBUTE> attributes_;
    std::deque<std::vector<native::CK_ULONG>> numbers_;  // a deque: its elements stay in place
};

// A template that the native library fills (C_GetAttributeValue).
class OutputTemplate {
public:
    OutputTemplate(CK_ATTRIBUTE* attributes, CK_ULONG count);

    OutputTemplate(const OutputTemplate&) = delete;
    OutputTemplate& operator=(const OutputTemplate&) = delete;

    native::CK_ATTRIBUTE* data();
    native::CK_ULONG count() const;

    // Writes values and lengths back into the caller's template after the native call, and answers
    // the call's return value. Attributes that cannot be carried over have the length (CK_ULONG)-1
    // and make a successful call CKR_ATTRIBUTE_TYPE_INVALID (holds a template, or shape unknown) or
    // CKR_GENERAL_ERROR (value does not fit into 32 bits).
    CK_RV finish(CK_RV result);

private:
    struct Entry {
        CK_ATTRIBUTE* caller;
        std::vector<native::CK_ULONG> numbers;  // empty unless the attribute has numbers
        bool holdsNumbers;
    };

    void add(CK_ATTRIBUTE& attribute);
    static void copyBack(const Entry& entry, const native::CK_ATTRIBUTE& filled);

    bool null_;
    CK_ULONG count_;
    std::vector<native::CK_ATTRIBUTE> attributes_;
    std::vector<Entry> entries_;          // one for each element of attributes_
    std::vector<CK_ATTRIBUTE*> refused_;  // never shown to the native library
};

}  // namespace NV::bridge
