// hostrun.dll: runs commands of the Linux host and changes the Unix environment of the process for
// a Windows program under Wine. Programs use it through host.h.

#include <sys/wait.h>

#include <cstdlib>

// Returns the exit code of /bin/sh -c command; 128 plus the signal's number if a signal ended it,
// -1 if it could not be started.
extern "C" __attribute__((ms_abi)) int HostRun(const char* command)
{
    if (command == nullptr)
        return -1;
    // NOLINTNEXTLINE(cert-env33-c): to run a command line is what the function is for
    const int status = std::system(command);
    if (status == -1)
        return -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

// Sets the variable, or removes it if value is null. Commands and native libraries of this process
// see it; Windows code of the process does not. Returns 0 on success.
extern "C" __attribute__((ms_abi)) int HostSetEnv(const char* name, const char* value)
{
    if (name == nullptr)
        return -1;
    return value != nullptr ? setenv(name, value, 1) : unsetenv(name);
}
