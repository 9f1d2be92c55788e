// needs_dependency.dll: does not load without odd_dependency.dll, and is not a PKCS#11 library.

extern "C" __declspec(dllimport) int oddDependency();

extern "C" __declspec(dllexport) int oddNeed()
{
    return oddDependency();
}
