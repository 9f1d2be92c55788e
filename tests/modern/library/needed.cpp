// The DLL that dependent_library.dll needs.

extern "C" __declspec(dllexport) int neededFunction();

extern "C" __declspec(dllexport) int neededFunction()
{
    return 7391;
}
