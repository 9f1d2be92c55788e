// The calls of a token operation as the scripted token records them: what every operation does before
// and after its own work. Used by the tests that compare all calls of an operation.

#pragma once

#include <string>

namespace NV::test {

inline const std::string rsaKey = "0x100=00000000,0x102=01AB";
inline const std::string ecKey = "0x100=03000000,0x102=0256";

// From C_Initialize to C_Finalize, without a login.
inline std::string operationCalls(const std::string& work, const std::string& session = "0x5E55")
{
    return "C_Initialize(initArgs={CreateMutex=given,DestroyMutex=given,LockMutex=given,"
           "UnlockMutex=given,flags=0x3,reserved=null})\n"
           "C_OpenSession(slot=52, flags=0x4, application=null, notify=null)\n" +
           work + "C_CloseSession(session=" + session +
           ")\n"
           "C_Finalize(reserved=null)\n";
}

inline std::string searchCalls(const std::string& keyTemplate, const std::string& session)
{
    return "C_FindObjectsInit(session=" + session + ", template={" + keyTemplate +
           "})\n"
           "C_FindObjects(session=" +
           session +
           ", max=1024, objects=given, count=given)\n"
           "C_FindObjectsFinal(session=" +
           session + ")\n";
}

// `key` is its type and its identifier, as in rsaKey.
inline std::string publicKeyCalls(const std::string& key, const std::string& work)
{
    return operationCalls(searchCalls("0x0=02000000," + key, "0x5E55") + work);
}

inline std::string privateKeyCalls(const std::string& key, const std::string& work,
                                   const std::string& session = "0x5E55")
{
    return operationCalls("C_Login(session=" + session + ", userType=1, pin=odd-PIN-7391)\n" +
                              searchCalls("0x0=03000000," + key, session) + work +
                              "C_Logout(session=" + session + ")\n",
                          session);
}

}  // namespace NV::test
