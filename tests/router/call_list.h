// Recorded lists of a program's calls of ncrypt.dll. A line is a call, " : ", and its answer:
//
//     GetProperty "Algorithm Group" 8 flags=0 : ok 8 "RSA"
//
// A call is the function without "NCrypt", its arguments, the flags, and "dialog" if it asks for the PIN.
// Where the list says no key, it is the one that was opened or acquired last. Room is a number of bytes or
// "null". An answer is "ok" or the status, then the length that was told, then the value.
//
//     OpenStorageProvider | OpenKey NAME | AcquirePrivateKey | FreeObject key | FreeObject provider
//     GetProperty NAME ROOM | ExportKey TYPE ROOM
//     SignHash PADDING HASH ROOM | VerifySignature PADDING HASH good|altered|short (the last signature)
//     Encrypt PADDING LENGTH ROOM | Decrypt PADDING ROOM (the last cipher text)
//
// PADDING is none, PKCS1, PSS or OAEP (with SHA1). Lines that begin with "#" are comments.

#pragma once

#include <string>
#include <vector>

#include "base/encoding.h"
#include "router_fixture.h"

namespace NV::test {

struct RecordedCall {
    std::string call;
    std::string answer;
    int line;  // in its file
};

// Throws std::runtime_error for a line of another form.
std::vector<RecordedCall> readCalls(const std::string& file);

// Makes calls, one after another.
class CallPlayer {
public:
    // The DER of the certificate in "My" whose key is acquired.
    explicit CallPlayer(Bytes certificate) : certificate_(std::move(certificate)) {}

    // The answer, in the form of the list. Throws std::runtime_error for a call that it does not know.
    std::string play(const std::string& call);

private:
    class Words;

    std::string openProvider(Words& words);
    std::string openKey(Words& words);
    std::string acquire(Words& words);
    std::string freeObject(Words& words);
    std::string getProperty(Words& words);
    std::string exportKey(Words& words);
    std::string sign(Words& words);
    std::string verify(Words& words);
    std::string encrypt(Words& words);
    std::string decrypt(Words& words);

    Bytes certificate_;
    Handle provider_;
    Handle key_;
    Bytes signature_;
    Bytes cipher_;
    Bytes plain_;
};

}  // namespace NV::test
