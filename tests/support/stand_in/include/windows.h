// The part of the Windows API that the module's core and its tests use, for a build of this machine:
// basic types, errors, files, modules, memory, threads, and text conversion. The other files of the
// stand-in implement it.
//
// A wchar_t is 4 bytes here and contains a whole character. Handles, sizes and values are those of
// 64-bit Windows.

#pragma once

#include <cstddef>
#include <cstdint>

// There is one calling convention.
#define WINAPI
#define CALLBACK

using BYTE = unsigned char;
using PBYTE = BYTE*;
using UCHAR = unsigned char;
using PUCHAR = UCHAR*;
using WORD = uint16_t;
using USHORT = uint16_t;
using DWORD = uint32_t;
using ULONG = uint32_t;
using LONG = int32_t;
using UINT = uint32_t;
using BOOL = int;
using WCHAR = wchar_t;
using LPSTR = char*;
using LPCSTR = const char*;
using LPWSTR = wchar_t*;
using LPCWSTR = const wchar_t*;
#define VOID void
using PVOID = void*;
using LPVOID = void*;
using LPCVOID = const void*;
using HANDLE = void*;
using ULONG_PTR = uintptr_t;
using DWORD_PTR = uintptr_t;
using LONG_PTR = intptr_t;
using INT_PTR = intptr_t;
using WPARAM = uintptr_t;
using LPARAM = intptr_t;
using LRESULT = intptr_t;
using ULONGLONG = uint64_t;
using HRESULT = int32_t;
using NTSTATUS = int32_t;

struct HINSTANCE__ {
    int unused;
};
using HINSTANCE = HINSTANCE__*;
using HMODULE = HINSTANCE;
struct HWND__ {
    int unused;
};
using HWND = HWND__*;
using FARPROC = intptr_t (*)();

inline constexpr BOOL FALSE = 0;
inline constexpr BOOL TRUE = 1;

// Errors
inline constexpr LONG ERROR_SUCCESS = 0;
inline constexpr LONG ERROR_FILE_NOT_FOUND = 2;
inline constexpr LONG ERROR_PATH_NOT_FOUND = 3;
inline constexpr LONG ERROR_ACCESS_DENIED = 5;
inline constexpr LONG ERROR_INVALID_HANDLE = 6;
inline constexpr LONG ERROR_NO_MORE_FILES = 18;
inline constexpr LONG ERROR_SHARING_VIOLATION = 32;
inline constexpr LONG ERROR_BAD_NETPATH = 53;
inline constexpr LONG ERROR_BAD_NET_NAME = 67;
inline constexpr LONG ERROR_FILE_EXISTS = 80;
inline constexpr LONG ERROR_INVALID_PARAMETER = 87;
inline constexpr LONG ERROR_DISK_FULL = 112;
inline constexpr LONG ERROR_INSUFFICIENT_BUFFER = 122;
inline constexpr LONG ERROR_INVALID_NAME = 123;
inline constexpr LONG ERROR_MOD_NOT_FOUND = 126;
inline constexpr LONG ERROR_PROC_NOT_FOUND = 127;
inline constexpr LONG ERROR_ALREADY_EXISTS = 183;
inline constexpr LONG ERROR_BAD_EXE_FORMAT = 193;
inline constexpr LONG ERROR_MORE_DATA = 234;

// Of the calling thread.
DWORD GetLastError();
void SetLastError(DWORD error);

// Files
// NOLINTNEXTLINE(performance-no-int-to-ptr): the value that Windows defines.
#define INVALID_HANDLE_VALUE reinterpret_cast<HANDLE>(intptr_t{-1})

inline constexpr DWORD INVALID_FILE_ATTRIBUTES = 0xFFFFFFFF;
inline constexpr DWORD FILE_ATTRIBUTE_READONLY = 0x01;
inline constexpr DWORD FILE_ATTRIBUTE_DIRECTORY = 0x10;
inline constexpr DWORD FILE_ATTRIBUTE_NORMAL = 0x80;
inline constexpr DWORD FILE_APPEND_DATA = 0x0004;
inline constexpr DWORD GENERIC_READ = 0x80000000;
inline constexpr DWORD GENERIC_WRITE = 0x40000000;
inline constexpr DWORD DELETE = 0x00010000;
inline constexpr DWORD FILE_SHARE_READ = 0x01;
inline constexpr DWORD FILE_SHARE_WRITE = 0x02;
inline constexpr DWORD FILE_SHARE_DELETE = 0x04;
inline constexpr DWORD OPEN_EXISTING = 3;
inline constexpr DWORD OPEN_ALWAYS = 4;
inline constexpr DWORD FIND_FIRST_EX_LARGE_FETCH = 0x02;
inline constexpr DWORD MAX_PATH = 260;

enum FINDEX_INFO_LEVELS { FindExInfoStandard, FindExInfoBasic };
enum FINDEX_SEARCH_OPS { FindExSearchNameMatch };

struct FILETIME {
    DWORD dwLowDateTime;
    DWORD dwHighDateTime;
};

// Only the attributes and the name are filled.
struct WIN32_FIND_DATAW {
    DWORD dwFileAttributes;
    wchar_t cFileName[MAX_PATH];
};

struct SECURITY_ATTRIBUTES;

DWORD GetFileAttributesW(LPCWSTR name);
BOOL SetFileAttributesW(LPCWSTR name, DWORD attributes);
BOOL DeleteFileW(LPCWSTR name);
// Only FOLDER\*; the search operation, the filter and the flags are ignored.
HANDLE FindFirstFileExW(LPCWSTR pattern, FINDEX_INFO_LEVELS level, void* entry,
                        FINDEX_SEARCH_OPS operation, void* filter, DWORD flags);
BOOL FindNextFileW(HANDLE search, WIN32_FIND_DATAW* entry);
BOOL FindClose(HANDLE search);
// OPEN_EXISTING and OPEN_ALWAYS. Sharing is checked against the handles of this process.
HANDLE CreateFileW(LPCWSTR name, DWORD access, DWORD share, SECURITY_ATTRIBUTES* security,
                   DWORD disposition, DWORD attributes, HANDLE sample);
BOOL WriteFile(HANDLE file, LPCVOID bytes, DWORD size, DWORD* written, void* overlapped);
BOOL CloseHandle(HANDLE file);

// Modules
HMODULE LoadLibraryW(LPCWSTR name);
inline constexpr DWORD LOAD_LIBRARY_SEARCH_DLL_LOAD_DIR = 0x100;
inline constexpr DWORD LOAD_LIBRARY_SEARCH_DEFAULT_DIRS = 0x1000;
HMODULE LoadLibraryExW(LPCWSTR name, HANDLE reserved, DWORD flags);
// Of a loaded module; it is not loaded and its use is not counted. Null: the program.
HMODULE GetModuleHandleW(LPCWSTR name);
FARPROC GetProcAddress(HMODULE module, LPCSTR name);
BOOL FreeLibrary(HMODULE module);
// The running program's path alone: the module must be null.
DWORD GetModuleFileNameW(HMODULE module, LPWSTR path, DWORD capacity);

// Memory
inline constexpr DWORD PAGE_NOACCESS = 0x01;
inline constexpr DWORD PAGE_READONLY = 0x02;
inline constexpr DWORD PAGE_READWRITE = 0x04;
inline constexpr DWORD PAGE_WRITECOPY = 0x08;
inline constexpr DWORD PAGE_EXECUTE = 0x10;
inline constexpr DWORD PAGE_EXECUTE_READ = 0x20;
inline constexpr DWORD PAGE_EXECUTE_READWRITE = 0x40;
inline constexpr DWORD PAGE_EXECUTE_WRITECOPY = 0x80;
inline constexpr DWORD MEM_COMMIT = 0x1000;
inline constexpr DWORD MEM_RESERVE = 0x2000;
inline constexpr DWORD MEM_RELEASE = 0x8000;

void* VirtualAlloc(void* address, size_t size, DWORD type, DWORD protection);
// The whole block that VirtualAlloc gave: the size is 0 and the type MEM_RELEASE.
BOOL VirtualFree(void* address, size_t size, DWORD type);
// All pages that contain a byte of the range.

struct MEMORY_BASIC_INFORMATION {
    DWORD Protect;
};

// Fills in the protection alone.
size_t VirtualQuery(const void* address, MEMORY_BASIC_INFORMATION* information, size_t size);
BOOL VirtualProtect(void* address, size_t size, DWORD protection, DWORD* previous);

// Processes and threads
DWORD GetCurrentProcessId();
DWORD GetCurrentThreadId();
void Sleep(DWORD milliseconds);
ULONGLONG GetTickCount64();
// 100-nanosecond intervals since 1601.
void GetSystemTimeAsFileTime(FILETIME* time);

// Windows: none is shown
inline constexpr int IDOK = 1;
inline constexpr int IDCANCEL = 2;

BOOL IsWindow(HWND window);

// Text
inline constexpr UINT CP_ACP = 0;
inline constexpr UINT CP_UTF8 = 65001;

// The ANSI code page is UTF-8, too. Invalid bytes become U+FFFD. Lengths are in characters; the text
// needs no terminator. A null destination asks for the length.
int MultiByteToWideChar(UINT codePage, DWORD flags, LPCSTR text, int size, LPWSTR wide,
                        int capacity);
int WideCharToMultiByte(UINT codePage, DWORD flags, LPCWSTR wide, int length, LPSTR text,
                        int capacity, LPCSTR replacement, BOOL* replaced);

// As on Windows, this header includes those of the certificates.
#include <wincrypt.h>
