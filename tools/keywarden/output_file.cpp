// Creating the file beside, its access rights, and the comparison of files by their identity.

#include "output_file.h"

#include <windows.h>

#include <sddl.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <optional>
#include <utility>

#include "access_rights.h"
#include "failure.h"
#include "files.h"
#include "output.h"
#include "text.h"

namespace NV::tool {

namespace {

constexpr DWORD shareAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;

struct HandleCloser {
    using pointer = HANDLE;
    void operator()(HANDLE handle) const
    {
        if (handle != INVALID_HANDLE_VALUE)
            CloseHandle(handle);
    }
};
using Handle = std::unique_ptr<void, HandleCloser>;

struct SystemFreer {
    void operator()(void* block) const { LocalFree(block); }
};

[[noreturn]] void cannotWrite(const std::string& name, const std::string& reason)
{
    throw Failure(name + " cannot be written: " + reason);
}

// Does not ask for the right to read or write, so that it works on any file.
Handle openToLook(const std::filesystem::path& file)
{
    return Handle(CreateFileW(file.c_str(), 0, shareAll, nullptr, OPEN_EXISTING,
                              FILE_FLAG_BACKUP_SEMANTICS, nullptr));
}

using FileId = std::pair<ULONGLONG, std::array<BYTE, 16>>;

// The same for all names of one file: links, letters of another case, short names. Empty for what is
// not on a disk.
std::optional<FileId> idOf(HANDLE handle)
{
    if (handle == nullptr || handle == INVALID_HANDLE_VALUE ||
        GetFileType(handle) != FILE_TYPE_DISK)
        return std::nullopt;
    FileId id{};
    FILE_ID_INFO wide{};
    if (GetFileInformationByHandleEx(handle, FileIdInfo, &wide, sizeof wide)) {
        id.first = wide.VolumeSerialNumber;
        std::ranges::copy(wide.FileId.Identifier, id.second.begin());
        return id;
    }
    BY_HANDLE_FILE_INFORMATION narrow{};
    if (!GetFileInformationByHandle(handle, &narrow))
        return std::nullopt;
    id.first = narrow.dwVolumeSerialNumber;
    std::copy_n(reinterpret_cast<const BYTE*>(&narrow.nFileIndexHigh), sizeof(DWORD),
                id.second.begin());
    std::copy_n(reinterpret_cast<const BYTE*>(&narrow.nFileIndexLow), sizeof(DWORD),
                id.second.begin() + sizeof(DWORD));
    return id;
}

std::optional<FileId> idOfInput(const std::string& name)
{
    return isStandardStream(name) ? idOf(GetStdHandle(STD_INPUT_HANDLE))
                                  : idOf(openToLook(toPath(name)).get());
}

void refuseInputs(const std::optional<FileId>& id, const std::string& name,
                  const std::vector<std::string>& inputs)
{
    for (const std::string& input : inputs) {
        if (id && id == idOfInput(input))
            throw Failure(name + " is the same file as " + inputName(input),
                          "Write the result to another file.");
    }
}

// Such as NUL. A pipe is not opened, because that would connect to it.
bool isDevice(const std::filesystem::path& file)
{
    const Handle handle = openToLook(file);
    return handle.get() != INVALID_HANDLE_VALUE && GetFileType(handle.get()) == FILE_TYPE_CHAR;
}

bool isPipe(const std::filesystem::path& file)
{
    return file.native().starts_with(LR"(\\.\pipe\)");
}

// The user's security identifier as text. Throws Failure.
std::wstring userSid()
{
    HANDLE opened = nullptr;
    if (!OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, &opened))
        throw Failure("the user cannot be determined: " + errorText(GetLastError()));
    const Handle token(opened);
    std::array<BYTE, sizeof(TOKEN_USER) + SECURITY_MAX_SID_SIZE> block{};
    DWORD size = 0;
    wchar_t* text = nullptr;
    if (!GetTokenInformation(token.get(), TokenUser, block.data(), block.size(), &size) ||
        !ConvertSidToStringSidW(reinterpret_cast<TOKEN_USER*>(block.data())->User.Sid, &text))
        throw Failure("the user cannot be determined: " + errorText(GetLastError()));
    const std::unique_ptr<wchar_t, SystemFreer> owned(text);
    return text;
}

// The user owns the file and has all rights; nobody else has any, and none are inherited.
class UserAlone {
public:
    UserAlone()
    {
        const std::wstring sid = userSid();
        const std::wstring text = L"O:" + sid + L"D:P(A;;FA;;;" + sid + L")";
        PSECURITY_DESCRIPTOR descriptor = nullptr;
        if (!ConvertStringSecurityDescriptorToSecurityDescriptorW(text.c_str(), SDDL_REVISION_1,
                                                                  &descriptor, nullptr))
            throw Failure("the access rights cannot be made: " + errorText(GetLastError()));
        descriptor_.reset(descriptor);
        attributes_ = {sizeof attributes_, descriptor, FALSE};
    }
    UserAlone(const UserAlone&) = delete;
    UserAlone& operator=(const UserAlone&) = delete;
    ~UserAlone() = default;

    SECURITY_ATTRIBUTES* attributes() { return &attributes_; }

private:
    std::unique_ptr<void, SystemFreer> descriptor_;
    SECURITY_ATTRIBUTES attributes_{};
};

// What a file says while a virus scanner or an indexer has it open, even after it was deleted; and what
// one says that the user may not write.
bool mayBeInUse(DWORD error)
{
    return error == ERROR_ACCESS_DENIED || error == ERROR_SHARING_VIOLATION ||
           error == ERROR_LOCK_VIOLATION;
}

// A new file in the folder of another one. The destructor removes it unless it was renamed.
class FileBeside {
public:
    FileBeside(const std::filesystem::path& file, const std::string& name, bool secret)
        : target_(file), name_(name)
    {
        std::optional<UserAlone> userAlone;
        if (secret)
            userAlone.emplace();
        constexpr DWORD attempts = 16;
        DWORD error = ERROR_FILE_EXISTS;
        for (DWORD attempt = 0;
             attempt < attempts && (error == ERROR_FILE_EXISTS || mayBeInUse(error)); ++attempt) {
            path_ = beside(attempt);
            handle_.reset(CreateFileW(path_.c_str(), GENERIC_WRITE, 0,
                                      secret ? userAlone->attributes() : nullptr, CREATE_NEW,
                                      FILE_ATTRIBUTE_NORMAL, nullptr));
            if (handle_.get() != INVALID_HANDLE_VALUE)
                return;
            error = GetLastError();
        }
        cannotWrite(name_, errorText(error));
    }
    ~FileBeside()
    {
        if (renamed_)
            return;
        handle_.reset(INVALID_HANDLE_VALUE);
        DeleteFileW(path_.c_str());
    }
    FileBeside(const FileBeside&) = delete;
    FileBeside& operator=(const FileBeside&) = delete;

    HANDLE handle() const { return handle_.get(); }

    // A file that is replaced keeps its access rights, unless the new ones are part of the result.
    void rename(const OutputRules& rules)
    {
        if (!FlushFileBuffers(handle_.get()))
            cannotWrite(name_, errorText(GetLastError()));
        handle_.reset(INVALID_HANDLE_VALUE);
        const bool keepsRights = rules.force && !rules.secret &&
                                 GetFileAttributesW(target_.c_str()) != INVALID_FILE_ATTRIBUTES;
        // For when ReplaceFile cannot do it. A disk without access rights refuses.
        if (keepsRights)
            copyAccessRights(target_, path_);
        constexpr int attempts = 20;
        constexpr DWORD pause = 50;  // milliseconds
        DWORD error = replace(rules.force, keepsRights);
        for (int attempt = 1; attempt < attempts && mayBeInUse(error); ++attempt) {
            Sleep(pause);
            error = replace(rules.force, keepsRights);
        }
        if (error != ERROR_SUCCESS)
            cannotWrite(name_, errorText(error));
        renamed_ = true;
    }

private:
    // Returns the error.
    DWORD replace(bool force, bool keepsRights) const
    {
        const DWORD flags =
            MOVEFILE_WRITE_THROUGH | (force ? static_cast<DWORD>(MOVEFILE_REPLACE_EXISTING) : 0);
        const bool replaced =
            (keepsRights && ReplaceFileW(target_.c_str(), path_.c_str(), nullptr,
                                         REPLACEFILE_IGNORE_MERGE_ERRORS, nullptr, nullptr)) ||
            MoveFileExW(path_.c_str(), target_.c_str(), flags);
        return replaced ? ERROR_SUCCESS : GetLastError();
    }

    // A short name of its own: the name of the target can be as long as names may be.
    std::filesystem::path beside(DWORD attempt) const
    {
        wchar_t name[40];
        std::swprintf(name, std::size(name), L"keywarden-%08lx-%02lx.tmp", GetCurrentProcessId(),
                      attempt);
        return target_.parent_path() / name;
    }

    std::filesystem::path target_;
    std::string name_;
    std::filesystem::path path_;
    Handle handle_{INVALID_HANDLE_VALUE};
    bool renamed_ = false;
};

void writeAll(HANDLE handle, const std::string& name, std::span<const unsigned char> content)
{
    while (!content.empty()) {
        DWORD written = 0;
        const auto size = static_cast<DWORD>(std::min(content.size(), size_t{1} << 20));
        if (!WriteFile(handle, content.data(), size, &written, nullptr))
            cannotWrite(name, errorText(GetLastError()));
        content = content.subspan(written);
    }
}

void requireNewOrReplaceable(const std::filesystem::path& file, const std::string& name, bool force)
{
    const DWORD attributes = GetFileAttributesW(file.c_str());
    if (attributes == INVALID_FILE_ATTRIBUTES)
        return;
    if ((attributes & FILE_ATTRIBUTE_DIRECTORY) != 0)
        cannotWrite(name, "it is a folder");
    if (!force)
        throw Failure(name + " already exists", "--force replaces it.");
    if ((attributes & FILE_ATTRIBUTE_READONLY) != 0)
        cannotWrite(name, "it is read-only");
}

bool standardOutputIsTerminal()
{
    DWORD mode = 0;
    return GetConsoleMode(GetStdHandle(STD_OUTPUT_HANDLE), &mode) != 0;
}

}  // namespace

OutputFile::OutputFile(Output& out, const std::string& name, const std::vector<std::string>& inputs,
                       const OutputRules& rules)
    : name_(name), rules_(rules), stream_(isStandardStream(name))
{
    const std::filesystem::path file = toPath(name_);
    if (stream_) {
        out.keepStandardOutputFree();
        refuseInputs(idOf(GetStdHandle(STD_OUTPUT_HANDLE)), this->name(), inputs);
        if (!rules_.text && standardOutputIsTerminal())
            throw Failure("the result is not text and standard output is a terminal",
                          "Redirect standard output to a file or a program, or name a file.");
        return;
    }
    stream_ = isPipe(file) || isDevice(file);
    if (stream_)
        return;
    refuseInputs(idOf(openToLook(file).get()), name_, inputs);
    requireNewOrReplaceable(file, name_, rules_.force);
    const FileBeside attempt(file, name_, rules_.secret);
}

std::string OutputFile::name() const
{
    return isStandardStream(name_) ? "standard output" : name_;
}

void OutputFile::write(std::span<const unsigned char> content) const
{
    const std::filesystem::path file = toPath(name_);
    if (isStandardStream(name_)) {
        writeAll(GetStdHandle(STD_OUTPUT_HANDLE), name(), content);
    } else if (stream_) {
        const Handle device(
            CreateFileW(file.c_str(), GENERIC_WRITE, shareAll, nullptr, OPEN_EXISTING, 0, nullptr));
        if (device.get() == INVALID_HANDLE_VALUE)
            cannotWrite(name_, errorText(GetLastError()));
        writeAll(device.get(), name_, content);
    } else {
        requireNewOrReplaceable(file, name_, rules_.force);
        FileBeside beside(file, name_, rules_.secret);
        writeAll(beside.handle(), name_, content);
        beside.rename(rules_);
    }
}

}  // namespace NV::tool
