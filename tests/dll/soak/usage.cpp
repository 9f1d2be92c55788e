// The counters. Wine's own know neither private bytes nor handles: those come from the host and
// from the list of all handles.

#include "usage.h"

#include <windows.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <stdexcept>
#include <vector>

#include "host.h"

namespace NV::test {

namespace {

// A row of NtQuerySystemInformation's list of handles, and the list's head.
struct SystemHandle {
    void* object;
    ULONG_PTR process;
    ULONG_PTR value;
    ULONG access;
    USHORT backTrace;
    USHORT type;
    ULONG attributes;
    ULONG reserved;
};

struct SystemHandles {
    ULONG_PTR count;
    ULONG_PTR reserved;
    // As many as that follow.
};

// Declared with fewer kinds of information in the system's header than there are.
using QuerySystemInformation = LONG(WINAPI*)(ULONG, void*, ULONG, ULONG*);
constexpr ULONG systemExtendedHandleInformation = 64;
constexpr auto infoLengthMismatch = static_cast<LONG>(0xC0000004);

QuerySystemInformation querySystemInformation()
{
    return reinterpret_cast<QuerySystemInformation>(reinterpret_cast<void*>(
        GetProcAddress(GetModuleHandleW(L"ntdll"), "NtQuerySystemInformation")));
}

size_t handleCount()
{
    static const QuerySystemInformation query = querySystemInformation();
    std::vector<unsigned char> list(1U << 20);
    LONG status = 0;
    while ((status = query(systemExtendedHandleInformation, list.data(),
                           static_cast<ULONG>(list.size()), nullptr)) == infoLengthMismatch)
        list.resize(2 * list.size());
    if (status != 0)
        throw std::runtime_error("no list of handles");
    const auto* head = reinterpret_cast<const SystemHandles*>(list.data());
    const auto* rows = reinterpret_cast<const SystemHandle*>(head + 1);
    return static_cast<size_t>(std::count_if(rows, rows + head->count, [](const SystemHandle& row) {
        return row.process == GetCurrentProcessId();
    }));
}

void countHeaps(Usage& usage)
{
    std::array<HANDLE, 100> heaps{};
    const DWORD count = GetProcessHeaps(static_cast<DWORD>(heaps.size()), heaps.data());
    for (DWORD i = 0; i < count; ++i) {
        PROCESS_HEAP_ENTRY entry{};
        HeapLock(heaps.at(i));
        while (HeapWalk(heaps.at(i), &entry)) {
            if ((entry.wFlags & PROCESS_HEAP_ENTRY_BUSY) != 0) {
                ++usage.heapBlocks;
                usage.heapBytes += entry.cbData;
            }
        }
        HeapUnlock(heaps.at(i));
    }
}

// The number behind a name in the host's status of this process.
size_t statusOf(const std::string& status, const std::string& name)
{
    const size_t position = status.find(name + ":");
    if (position == std::string::npos)
        throw std::runtime_error("no " + name + " in the process's status");
    return std::stoul(status.substr(position + name.size() + 1));
}

}  // namespace

Usage usage()
{
    const std::string status = host::runOutput("cat /proc/$PPID/status").text;
    Usage usage{statusOf(status, "RssAnon"), 0, 0, handleCount(), statusOf(status, "Threads")};
    countHeaps(usage);
    return usage;
}

std::string usageHeading()
{
    return usageLine({}, {});
}

std::string usageLine(const std::string& name, const Usage& usage)
{
    std::array<char, 200> line{};
    if (name.empty())
        static_cast<void>(std::snprintf(line.data(), line.size(), "%-28s %12s %12s %12s %8s %8s",
                                        "", "private kB", "heap blocks", "heap bytes", "handles",
                                        "threads"));
    else
        static_cast<void>(std::snprintf(line.data(), line.size(),
                                        "%-28s %12zu %12zu %12zu %8zu %8zu", name.c_str(),
                                        usage.privateKilobytes, usage.heapBlocks, usage.heapBytes,
                                        usage.handles, usage.threads));
    return line.data();
}

}  // namespace NV::test
