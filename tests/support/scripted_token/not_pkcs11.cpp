// not_pkcs11.dll: a library that loads but is not a PKCS#11 library, for tests that must reject it.

extern "C" __declspec(dllexport) int oddFunction()
{
    return 7391;
}
