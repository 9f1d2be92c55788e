// Loads the module that its argument names, says so, and ends with the standard input: a program that has
// the module in use while a package replaces or removes it.

#include <windows.h>

#include <cstdio>

int wmain(int count, wchar_t** arguments)
{
    HMODULE module = count == 2 ? LoadLibraryW(arguments[1]) : nullptr;
    if (module == nullptr)
        return 1;
    static_cast<void>(std::puts("loaded"));
    static_cast<void>(std::fflush(stdout));
    while (std::getchar() != EOF) {}
    FreeLibrary(module);
    return 0;
}
