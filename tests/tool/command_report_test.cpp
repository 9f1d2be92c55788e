// keywarden report: what it contains, what it asks, and what it makes of bad input.

#include <windows.h>

#include <zlib.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <string>

#include "certified_profile.h"
#include "contains.h"

namespace NV::test {

namespace {

uint32_t numberAt(const std::string& bytes, size_t at, size_t size)
{
    uint32_t number = 0;
    for (size_t i = size; i > 0; --i)
        number = number << 8 | static_cast<unsigned char>(bytes.at(at + i - 1));
    return number;
}

// The files of an archive that this program wrote: header after header, without anything between.
std::map<std::string, std::string> filesOf(std::string bytes)
{
    std::map<std::string, std::string> files;
    size_t at = 0;
    while (at + 4 < bytes.size() && numberAt(bytes, at, 4) == 0x04034B50U) {
        const uint32_t packed = numberAt(bytes, at + 18, 4);
        const uint32_t nameLength = numberAt(bytes, at + 26, 2);
        std::string content(numberAt(bytes, at + 22, 4), '\0');
        z_stream z{};
        EXPECT_EQ(inflateInit2(&z, -MAX_WBITS), Z_OK);
        z.next_in = reinterpret_cast<Bytef*>(&bytes.at(at + 30 + nameLength));
        z.avail_in = packed;
        z.next_out = reinterpret_cast<Bytef*>(content.data());
        z.avail_out = static_cast<uInt>(content.size());
        EXPECT_EQ(inflate(&z, Z_FINISH), Z_STREAM_END);
        inflateEnd(&z);
        files[bytes.substr(at + 30, nameLength)] = content;
        at += 30 + nameLength + packed;
    }
    return files;
}

// "20261123": the name of a log of so many days ago.
std::string dayText(int ago)
{
    SYSTEMTIME now;
    GetLocalTime(&now);
    FILETIME time;
    SystemTimeToFileTime(&now, &time);
    ULARGE_INTEGER ticks;
    ticks.LowPart = time.dwLowDateTime;
    ticks.HighPart = time.dwHighDateTime;
    ticks.QuadPart -= static_cast<ULONGLONG>(ago) * 24 * 60 * 60 * 10'000'000;
    time.dwLowDateTime = ticks.LowPart;
    time.dwHighDateTime = ticks.HighPart;
    FileTimeToSystemTime(&time, &now);
    char text[16];
    std::snprintf(text, sizeof text, "%04d%02d%02d", now.wYear, now.wMonth, now.wDay);
    return text;
}

const std::string record =
    "2026-03-04 17:05:09.042 TRC [04312,1a2b3c4d] NV::P11RSAKeyObject::sign[x.cpp:1]:";

class ReportCommand : public testing::Test, protected CertifiedProfile {
protected:
    // Runs it with --json, and reads the files of the report.
    Json report(std::vector<std::string> arguments = {})
    {
        arguments.insert(arguments.begin(), {"report", "--yes", "-o", narrowPath(zip)});
        Json document = profile.json(std::move(arguments), 0, options);
        files = filesOf(readFile(zip));
        std::filesystem::remove(zip);
        return document;
    }

    bool notes(const Json& document, const std::string& text)
    {
        return std::ranges::any_of(document["notes"], [&](const Json& note) {
            return contains(note.get<std::string>(), text);
        });
    }

    std::filesystem::path logOf(int ago) const
    {
        return profile.folder() / "logs" / ("nvksprovider-" + dayText(ago) + ".log");
    }
    static std::string inZip(int ago) { return "log/nvksprovider-" + dayText(ago) + ".log"; }

    TemporaryFolder results;
    std::filesystem::path zip = results.path() / "odd.zip";
    std::map<std::string, std::string> files;
};

TEST_F(ReportCommand, ContainsWhatASupporterNeeds)
{
    writeFile(logOf(0), record + "pbSignature = C35A17E18D\n" + record + "ENTER\n");
    const Json document = report();
    EXPECT_FALSE(parsed(files["check.json"])["steps"].empty());
    EXPECT_EQ(parsed(files["check.json"]), profile.json({"check"}, 0, options));
    EXPECT_EQ(parsed(files["status.json"]), profile.json({"status"}, 0, options));
    EXPECT_EQ(parsed(files["certificates.json"])["certificates"],
              profile.json({"clean", "--all", "--dry-run"}, 0, options)["certificates"]);
    EXPECT_EQ(files["configuration-user.conf"], readFile(profile.configFile()));
    const Json versions = parsed(files["versions.json"]);
    EXPECT_EQ(versions["library"]["file"], narrowPath(oddLibrary(L"certified_token.dll")));
    EXPECT_EQ(versions["library"]["sha256"].get<std::string>().size(), 64U);
    EXPECT_EQ(versions["tool"]["bytes"],
              std::filesystem::file_size(programFolder() / "keywarden.exe"));
    EXPECT_FALSE(versions["module"]["version"].get<std::string>().empty());
    EXPECT_FALSE(versions["windows"]["version"].get<std::string>().empty());
    EXPECT_EQ(files[inZip(0)], record + "pbSignature = (taken out)\n" + record + "ENTER\n");
    for (const Json& file : document["files"]) {
        const auto name = file["name"].get<std::string>();
        EXPECT_EQ(file["bytes"], files.at(name).size()) << name;
        EXPECT_TRUE(name == "contents.txt" || contains(files["contents.txt"], name)) << name;
    }
    EXPECT_EQ(document["files"].size(), files.size());
    EXPECT_TRUE(notes(document, "There is no configuration of all users"));
}

TEST_F(ReportCommand, ShowsItAndAsksFirst)
{
    options.input = "no\n";
    ChildResult result = profile.run({"report", "-o", narrowPath(zip)}, options);
    EXPECT_EQ(result.exitCode, 0U);
    EXPECT_TRUE(contains(result.output, "\ncheck.json ")) << result.output;
    EXPECT_TRUE(contains(result.output, "Names are still there")) << result.output;
    EXPECT_TRUE(contains(result.output, "Write " + narrowPath(zip) + " (yes or no)?"));
    EXPECT_TRUE(contains(result.output, "Nothing was written."));
    EXPECT_FALSE(std::filesystem::exists(zip));
    options.input = "yes\n";
    result = profile.run({"report", "-o", narrowPath(zip)}, options);
    EXPECT_TRUE(contains(result.output, "Report: ")) << result.output;
    EXPECT_TRUE(std::filesystem::exists(zip));
    options.input.reset();
    EXPECT_EQ(profile.json({"report"}, 1, options)["error"], "--json does not ask");
}

TEST_F(ReportCommand, ReplacesNoFileAndTriesTheFolderFirst)
{
    // Nothing long is done before: this library would take the time limit.
    setFault(L"C_Initialize hang");
    writeFile(zip, "odd");
    profile.expectRun(1, {"report", "--yes", "-o", narrowPath(zip)}, {"already exists"}, options);
    EXPECT_EQ(readFile(zip), "odd");
    const auto missing = results.path() / "missing" / "odd.zip";
    profile.expectRun(1, {"report", "--yes", "-o", narrowPath(missing)}, {"missing"}, options);
    profile.expectRun(0, {"report", "--yes", "--force", "-o", narrowPath(zip), "--timeout", "2"},
                      {"Report: "}, options);
    files = filesOf(readFile(zip));
    EXPECT_TRUE(contains(files["check.json"], "did not come back from C_Initialize within 2 s"));
}

TEST_F(ReportCommand, IsMadeWithoutAConfiguration)
{
    const ToolProfile empty;
    const Json document = empty.json({"report", "--yes", "-o", narrowPath(zip)}, 0);
    files = filesOf(readFile(zip));
    EXPECT_TRUE(notes(document, "There is no configuration of the user"));
    EXPECT_TRUE(notes(document, "The log is missing"));
    EXPECT_EQ(parsed(files["versions.json"])["library"], nullptr);
    EXPECT_TRUE(files.contains("check.json"));
    EXPECT_FALSE(files.contains("configuration-user.conf"));
}

TEST_F(ReportCommand, TakesTheDaysThatAreAskedFor)
{
    EXPECT_TRUE(notes(report(), "There is no log of the last 3 days"));
    for (const int ago : {0, 2, 3})
        writeFile(logOf(ago), record + "ENTER\n");
    const Json document = report();
    EXPECT_TRUE(files.contains(inZip(2)));
    EXPECT_FALSE(files.contains(inZip(3)));
    EXPECT_TRUE(notes(document, "1 log of earlier days left out"));
    report({"--days", "1"});
    EXPECT_TRUE(files.contains(inZip(0)));
    EXPECT_FALSE(files.contains(inZip(2)));
    EXPECT_TRUE(notes(report({"--days", "0"}), "The log was left out."));
    EXPECT_FALSE(files.contains(inZip(0)));
    EXPECT_EQ(profile.run({"report", "--days", "1000"}).exitCode, 2U);
}

TEST_F(ReportCommand, TakesTheEndOfALargeLog)
{
    writeFile(logOf(0), "");
    HANDLE file =
        CreateFileW(logOf(0).c_str(), GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, 0, nullptr);
    LARGE_INTEGER end{};
    end.QuadPart = LONGLONG{2} << 30;
    SetFilePointerEx(file, end, nullptr, FILE_BEGIN);
    const std::string last = "\n" + record + "ENTER\n";
    DWORD written = 0;
    WriteFile(file, last.data(), static_cast<DWORD>(last.size()), &written, nullptr);
    CloseHandle(file);
    const Json document = report();
    EXPECT_TRUE(notes(document, "the newest 64 MiB of 2048 MiB")) << document["notes"];
    EXPECT_EQ(files[inZip(0)], record + "ENTER\n");
}

TEST_F(ReportCommand, LeavesOutALogThatCannotBeRead)
{
    writeFile(logOf(0), record + "ENTER\n");
    writeFile(logOf(1), record + "LEAVE\n");
    HANDLE held =
        CreateFileW(logOf(0).c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr);
    const Json document = report();
    CloseHandle(held);
    EXPECT_TRUE(notes(document, inZip(0) + " is missing")) << document["notes"];
    EXPECT_FALSE(files.contains(inZip(0)));
    EXPECT_EQ(files[inZip(1)], record + "LEAVE\n");
}

TEST_F(ReportCommand, ShowsNoLineThatTheModuleDoesNotRead)
{
    profile.writeConfig(goodConfig(oddLibrary(L"certified_token.dll")) +
                        "pin=1234-odd\n# 1234-odd\n");
    report();
    EXPECT_TRUE(contains(files["check.json"], "(taken out)"));
    for (const auto& [name, content] : files)
        EXPECT_FALSE(contains(content, "1234-odd")) << name;
    profile.writeConfig(goodConfig(oddLibrary(L"certified_token.dll")) + "1234-odd\n");
    report();
    for (const auto& [name, content] : files)
        EXPECT_FALSE(contains(content, "1234-odd")) << name;
}

TEST_F(ReportCommand, IsMadeForAProfileWithAJapaneseName)
{
    const TemporaryFolder japanese(L"\u65E5\u672C \u8A9E");
    const auto folder = japanese.path() / ".norvanta-keywarden";
    writeFile(folder / "nvksprovider.conf", readFile(profile.configFile()));
    writeFile(folder / "logs" / logOf(0).filename(), record + "ENTER\n");
    options.environment[L"USERPROFILE"] = japanese.path().wstring();
    const ChildResult result =
        runTool({"--json", "report", "--yes", "-o", narrowPath(zip)}, options);
    EXPECT_EQ(result.exitCode, 0U) << result.output;
    files = filesOf(readFile(zip));
    EXPECT_EQ(files["configuration-user.conf"], readFile(profile.configFile()));
    // Where the code page has no such characters, the module finds no log folder either; the list says so.
    const std::string& contents = files["contents.txt"];
    EXPECT_NE(files.contains(inZip(0)),
              contains(contents, "The log is missing") || contains(contents, "There is no log of"))
        << contents;
    EXPECT_TRUE(contains(files["contents.txt"], "\xE6\x97\xA5\xE6\x9C\xAC"));
}

TEST_F(ReportCommand, WritesToTheCurrentFolder)
{
    const auto before = std::filesystem::current_path();
    std::filesystem::current_path(results.path());
    const Json document = profile.json({"report", "--yes"}, 0, options);
    std::filesystem::current_path(before);
    const auto name = document["output"].get<std::string>();
    EXPECT_TRUE(name.starts_with("keywarden-report-" + dayText(0) + "-")) << name;
    EXPECT_EQ(document["bytes"], std::filesystem::file_size(results.path() / name));
}

}  // namespace

}  // namespace NV::test
