// not_pkcs11.dll: a library that loads but is no PKCS#11 library, for tests of refusing one.

extern "C" __declspec(dllexport) int oddFunction()
{
    return 7391;
}
