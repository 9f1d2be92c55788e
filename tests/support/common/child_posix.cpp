// Child processes of tests on this machine.

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <iterator>
#include <system_error>
#include <thread>

#include "child.h"
#include "folder.h"

namespace NV::test {

namespace {

[[noreturn]] void throwError(const char* what)
{
    throw std::system_error(errno, std::generic_category(), what);
}

// The exit code that Windows gives a process that ended in the same way.
unsigned long exitCodeOf(int status)
{
    if (WIFEXITED(status))
        return static_cast<unsigned long>(WEXITSTATUS(status));
    switch (WTERMSIG(status)) {
    case SIGSEGV:
    case SIGBUS:
        return 0xC0000005;
    case SIGILL:
    case SIGTRAP:
        return 0xC000001D;
    case SIGABRT:
        return 3;
    default:
        return 127;
    }
}

std::string narrow(const std::wstring& text)
{
    return std::filesystem::path(text).string();
}

// Between fork and exec, in the child.
[[noreturn]] void become(const std::filesystem::path& program, const ChildOptions& options,
                         const std::filesystem::path& input, const std::filesystem::path& output)
{
    const int in = open(input.c_str(), O_RDONLY);
    const int out = open(output.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    if (in < 0 || out < 0 || dup2(in, 0) < 0 || dup2(out, 1) < 0 || dup2(out, 2) < 0)
        _exit(126);
    for (const auto& [name, value] : options.environment) {
        if (value)
            setenv(narrow(name).c_str(), narrow(*value).c_str(), 1);
        else
            unsetenv(narrow(name).c_str());
    }
    std::string name = program.string();
    std::vector<std::string> texts = options.arguments;
    std::vector<char*> arguments{name.data()};
    for (std::string& text : texts)
        arguments.push_back(text.data());
    arguments.push_back(nullptr);
    execv(program.c_str(), arguments.data());
    _exit(125);
}

}  // namespace

std::filesystem::path ownProgram()
{
    return std::filesystem::read_symlink("/proc/self/exe");
}

std::filesystem::path programFolder()
{
    return ownProgram().parent_path();
}

ChildResult runProgram(const std::filesystem::path& program, const ChildOptions& options)
{
    const TemporaryFolder folder;
    const std::filesystem::path input = folder.path() / "input";
    const std::filesystem::path output = folder.path() / "output";
    writeFile(input, options.input.value_or(""));

    const pid_t process = fork();
    if (process < 0)
        throwError("fork");
    if (process == 0)
        become(program, options, input, output);

    ChildResult result;
    int status = 0;
    const auto end = std::chrono::steady_clock::now() + options.timeout;
    while (waitpid(process, &status, WNOHANG) == 0) {
        if (std::chrono::steady_clock::now() >= end) {
            result.timedOut = true;
            kill(process, SIGKILL);
            waitpid(process, &status, 0);
            break;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    result.exitCode = exitCodeOf(status);
    result.output = readFile(output);
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
