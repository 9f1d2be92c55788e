// odd_dependency.dll: what needs_dependency.dll needs.

extern "C" __declspec(dllexport) int oddDependency()
{
    return 7391;
}
