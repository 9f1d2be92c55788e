// Keeps Wine's desktop open until it is ended. Wine closes the desktop about a second after the last
// program that used it has ended, and a program that asks for a window in that moment gets none.

#include <windows.h>

int main()
{
    GetDesktopWindow();
    Sleep(INFINITE);
}
