// Loads the module that its argument names, says so, and ends with the standard input: a program that has
// the module in use while a package replaces or removes it.

#include <windows.h>

#include <cstdio>

int wmain(int count, wchar_t** arguments)
{
    if (count != 2 || LoadLibraryW(arguments[1]) == nullptr)
        return 1;
    std::puts("loaded");
    std::fflush(stdout);
    while (std::getchar() != EOF) {
    }
    return 0;
}
