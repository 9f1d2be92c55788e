// odd_dependency.dll: the dependency of needs_dependency.dll.

extern "C" __declspec(dllexport) int oddDependency()
{
    return 7391;
}
