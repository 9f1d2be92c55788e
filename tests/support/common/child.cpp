// Child processes: command line, environment block, output file, waiting.

#include "child.h"

#include <windows.h>

#include <algorithm>
#include <iterator>
#include <memory>
#include <string>
#include <system_error>
#include <utility>

#include "folder.h"

namespace NV::test {

namespace {

struct HandleCloser {
    using pointer = HANDLE;
    void operator()(HANDLE handle) const { CloseHandle(handle); }
};
using OwnedHandle = std::unique_ptr<HANDLE, HandleCloser>;

[[noreturn]] void throwLastError(const char* what)
{
    throw std::system_error(static_cast<int>(GetLastError()), std::system_category(), what);
}

std::wstring widen(const std::string& ansi)
{
    const int size = static_cast<int>(ansi.size());
    const int length = MultiByteToWideChar(CP_ACP, 0, ansi.data(), size, nullptr, 0);
    std::wstring wide(static_cast<size_t>(length), L'\0');
    MultiByteToWideChar(CP_ACP, 0, ansi.data(), size, wide.data(), length);
    return wide;
}

// One argument as the C runtime's command line rules read it back.
std::wstring quoted(const std::wstring& argument)
{
    std::wstring text = L"\"";
    size_t backslashes = 0;
    for (const wchar_t c : argument) {
        if (c == L'"')
            text.append(backslashes + 1, L'\\');
        backslashes = c == L'\\' ? backslashes + 1 : 0;
        text += c;
    }
    return text.append(backslashes, L'\\') + L"\"";
}

// Names are compared without regard to case, as Windows does.
std::wstring upperCase(std::wstring text)
{
    CharUpperBuffW(text.data(), static_cast<DWORD>(text.size()));
    return text;
}

using Variables = std::map<std::wstring, std::wstring>;

// Upper-case name to "Name=value".
Variables ownVariables()
{
    Variables variables;
    const std::unique_ptr<wchar_t, decltype(&FreeEnvironmentStringsW)> block(
        GetEnvironmentStringsW(), &FreeEnvironmentStringsW);
    for (const wchar_t* entry = block.get(); *entry != L'\0';) {
        const std::wstring text = entry;
        // Names of the hidden entries ("=C:") begin with the sign.
        variables[upperCase(text.substr(0, text.find(L'=', 1)))] = text;
        entry += text.size() + 1;
    }
    return variables;
}

std::wstring environmentBlock(const ChildOptions& options)
{
    Variables variables = ownVariables();
    for (const auto& [name, value] : options.environment) {
        if (value)
            variables[upperCase(name)] = name + L"=" + *value;
        else
            variables.erase(upperCase(name));
    }
    std::wstring block;
    for (const auto& [name, text] : variables)
        block.append(text).push_back(L'\0');
    block.push_back(L'\0');
    return block;
}

struct Pipe {
    OwnedHandle read;
    OwnedHandle write;
};

Pipe makePipe()
{
    SECURITY_ATTRIBUTES inheritable{sizeof inheritable, nullptr, TRUE};
    HANDLE read = nullptr;
    HANDLE write = nullptr;
    if (CreatePipe(&read, &write, &inheritable, 0) == 0)
        throwLastError("CreatePipe");
    return {OwnedHandle(read), OwnedHandle(write)};
}

// The child must not hold our own end open.
void keepToOurselves(const OwnedHandle& end)
{
    SetHandleInformation(end.get(), HANDLE_FLAG_INHERIT, 0);
}

// A pipe that is full already and has no writer left.
OwnedHandle makeInput(const std::string& text)
{
    Pipe pipe = makePipe();
    keepToOurselves(pipe.write);
    DWORD written = 0;
    if (WriteFile(pipe.write.get(), text.data(), static_cast<DWORD>(text.size()), &written,
                  nullptr) == 0)
        throwLastError("WriteFile");
    return std::move(pipe.read);
}

// A file that the child inherits for its output. Not a pipe: a service that the system happens to
// start for the child inherits it too, and a pipe's reader would wait for that one's end as well.
OwnedHandle makeOutput(const std::filesystem::path& file)
{
    SECURITY_ATTRIBUTES inheritable{sizeof inheritable, nullptr, TRUE};
    HANDLE output = CreateFileW(file.c_str(), GENERIC_WRITE,
                                FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                                &inheritable, CREATE_NEW, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (output == INVALID_HANDLE_VALUE)
        throwLastError("CreateFile");
    return OwnedHandle(output);
}

OwnedHandle start(const std::filesystem::path& program, const ChildOptions& options, HANDLE input,
                  HANDLE output)
{
    std::wstring commandLine = quoted(program.wstring());
    for (const std::string& argument : options.arguments)
        commandLine += L" " + quoted(widen(argument));
    std::wstring environment = environmentBlock(options);

    STARTUPINFOW startup{};
    startup.cb = sizeof startup;
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdInput = input;
    startup.hStdOutput = output;
    startup.hStdError = output;
    PROCESS_INFORMATION process{};
    if (CreateProcessW(program.c_str(), commandLine.data(), nullptr, nullptr, TRUE,
                       CREATE_UNICODE_ENVIRONMENT, environment.data(), nullptr, &startup,
                       &process) == 0)
        throwLastError("CreateProcess");
    CloseHandle(process.hThread);
    return OwnedHandle(process.hProcess);
}

}  // namespace

std::filesystem::path ownProgram()
{
    std::wstring path(32768, L'\0');
    path.resize(GetModuleFileNameW(nullptr, path.data(), static_cast<DWORD>(path.size())));
    return path;
}

std::filesystem::path programFolder()
{
    return ownProgram().parent_path();
}

ChildResult runProgram(const std::filesystem::path& program, const ChildOptions& options)
{
    const TemporaryFolder folder;
    const std::filesystem::path file = folder.path() / L"output";
    OwnedHandle output = makeOutput(file);
    const OwnedHandle input = options.input ? makeInput(*options.input) : nullptr;
    const OwnedHandle process = start(program, options, input.get(), output.get());
    output.reset();

    ChildResult result;
    const auto wait = static_cast<DWORD>(options.timeout.count());
    if (WaitForSingleObject(process.get(), wait) == WAIT_TIMEOUT) {
        result.timedOut = true;
        TerminateProcess(process.get(), 127);
        WaitForSingleObject(process.get(), INFINITE);
    }
    GetExitCodeProcess(process.get(), &result.exitCode);
    result.output = readFile(file);
    return result;
}

ChildResult runChild(const std::string& work, const ChildOptions& options)
{
    ChildOptions withWork = options;
    withWork.arguments = {"--child=" + work};
    std::ranges::copy(options.arguments, std::back_inserter(withWork.arguments));
    return runProgram(ownProgram(), withWork);
}

}  // namespace NV::test
