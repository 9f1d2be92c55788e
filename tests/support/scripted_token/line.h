// Renders a call's arguments as one line of text, in the form that tests compare literally. Used by
// the PKCS#11 functions of the scripted token (calls_*.cpp). README.md lists the forms. A line is
// empty while calls are not recorded.

#pragma once

#include <atomic>
#include <string>

#include "p11/cryptoki.h"

namespace NV::scripted {

// Whether calls are recorded; see ScriptedToken::setRecording.
std::atomic<bool>& recording();

class Line {
public:
    Line& hex(const char* name, CK_ULONG value);
    Line& decimal(const char* name, CK_ULONG value);
    // Input bytes: hexadecimal; `null`, `null[LENGTH]` or `empty`.
    Line& bytes(const char* name, const void* data, CK_ULONG length);
    // Input characters, as they are.
    Line& text(const char* name, const CK_UTF8CHAR* data, CK_ULONG length);
    // A pointer of which only the presence matters: `given` or `null`.
    Line& pointer(const char* name, const void* value);
    // An output buffer with its in/out length: `null`, `room[LENGTH]` or `room[?]`.
    Line& room(const char* name, const void* buffer, const CK_ULONG* length);
    Line& mechanism(const CK_MECHANISM* mechanism);
    // A template with values, and a template whose values the call fills in.
    Line& attributes(const char* name, const CK_ATTRIBUTE* attributes, CK_ULONG count);
    Line& wanted(const char* name, const CK_ATTRIBUTE* attributes, CK_ULONG count);
    Line& initArguments(const CK_C_INITIALIZE_ARGS* arguments);

    const std::string& str() const { return text_; }

private:
    Line& add(const char* name, const std::string& value);

    bool wanted_ = recording();
    std::string text_;
};

}  // namespace NV::scripted
