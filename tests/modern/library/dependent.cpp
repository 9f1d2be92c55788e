// A library that needs another DLL. It has no function list: the tests look only at whether it loads.

extern "C" __declspec(dllimport) int neededFunction();

extern "C" __declspec(dllexport) int dependentFunction();

extern "C" __declspec(dllexport) int dependentFunction()
{
    return neededFunction();
}
