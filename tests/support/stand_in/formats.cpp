// The printf formats that differ: the C library of Windows writes a pointer as 16 hexadecimal digits.
// Programs are linked with vsnprintf wrapped.

#include <cstdarg>
#include <cstddef>
#include <string>

// The linker's names for the wrapped and the wrapping function.
// NOLINTBEGIN(bugprone-reserved-identifier)
extern "C" {
int __real_vsnprintf(char* buffer, size_t capacity, const char* format, va_list arguments);
int __wrap_vsnprintf(char* buffer, size_t capacity, const char* format, va_list arguments);

int __wrap_vsnprintf(char* buffer, size_t capacity, const char* format, va_list arguments)
{
    std::string changed;
    for (const char* at = format; *at != '\0'; ++at) {
        changed += *at;
        if (*at != '%')
            continue;
        ++at;
        if (*at == 'p')
            changed += "016lX";
        else if (*at == '\0')
            break;
        else
            changed += *at;
    }
    return __real_vsnprintf(buffer, capacity, changed.c_str(), arguments);
}
}
// NOLINTEND(bugprone-reserved-identifier)
