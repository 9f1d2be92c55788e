// keywarden register, unregister, status: the module's registration with CNG.

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include "command/commands.h"
#include "command/documents.h"
#include "nvvtoken/nvvtoken_name.h"
#include "session.h"
#include "system/configuration.h"
#include "system/registration.h"
#include "text.h"

namespace NV::tool {

namespace {

constexpr const char* cannotReport = "This system cannot report what is registered with CNG.";

std::string quotedName()
{
    return "\"" + toUtf8(providerName) + "\"";
}

const char* jsonOf(Change change)
{
    switch (change) {
    case Change::none:
        return "none";
    case Change::made:
        return "made";
    case Change::unconfirmed:
        break;
    }
    return "unconfirmed";
}

bool isFile(const std::filesystem::path& path)
{
    std::error_code error;
    return std::filesystem::is_regular_file(path, error);
}

// What a command prints, by outcome.
struct Report {
    const char* none;         // "is already registered"
    const char* made;         // "is registered"
    const char* unconfirmed;  // "Registered."
};

void print(Session& session, Change change, const Report& report)
{
    switch (change) {
    case Change::none:
        session.out.line(quotedName() + " " + report.none + "; nothing was changed.");
        break;
    case Change::made:
        session.out.line(quotedName() + " " + report.made + ".");
        break;
    case Change::unconfirmed:
        session.out.line(std::string(report.unconfirmed) + " " + cannotReport);
        break;
    }
}

void registerNow(Session& session)
{
    const CngSystem system = thisSystem();
    const Change change = registerModule(system);
    print(session, change, {"is already registered", "is registered", "Registered."});
    const std::filesystem::path file = system.systemFolder / registeredImage;
    if (!isFile(file))
        session.out.line("Note: CNG will look for " + toUtf8(file) + ", which does not exist.");
    session.out.document({{"provider", toUtf8(providerName)},
                          {"change", jsonOf(change)},
                          {"file", toUtf8(file)},
                          {"fileExists", isFile(file)}});
}

void unregisterNow(Session& session)
{
    const Change change = unregisterModule(thisSystem());
    print(session, change, {"is not registered", "is no longer registered", "Unregistered."});
    session.out.document({{"provider", toUtf8(providerName)}, {"change", jsonOf(change)}});
}

void showState(Session& session, const Registration& now)
{
    if (!now.known) {
        session.out.line(cannotReport);
        return;
    }
    if (now.absent()) {
        session.out.line(quotedName() + " is not registered.");
        session.out.line(
            "To register it, run \"keywarden register\" in an administrator's terminal.");
        return;
    }
    session.out.line(quotedName() +
                     (now.complete() ? " is registered." : " is only partly registered."));
    if (now.present) {
        session.out.line("  DLL:     " + toUtf8(now.image) + (now.asWritten ? "" : " (differs)"));
        session.out.line("  file:    " + toUtf8(now.file) +
                         (isFile(now.file) ? "" : " (does not exist)"));
    } else {
        session.out.line("  DLL:     none");
    }
    session.out.line("  offered: " + std::string(now.listed ? "yes" : "no") +
                     " (among CNG's key storage providers)");
    if (!now.complete())
        session.out.line(
            "To repair it, run \"keywarden register\" in an administrator's terminal.");
}

// Which configuration the module reads for this user, and why.
Json showConfiguration(Session& session)
{
    const std::filesystem::path own = configurationFile();
    const std::filesystem::path shared = configurationOfAllUsers();
    switch (configurationThatHolds()) {
    case ConfigurationOf::user:
        session.out.line("Configuration: " + toUtf8(own) + " (this user's own)");
        return {{"file", toUtf8(own)}, {"of", "user"}};
    case ConfigurationOf::allUsers:
        session.out.line("Configuration: " + toUtf8(shared) +
                         " (for all users; this user has none of their own)");
        return {{"file", toUtf8(shared)}, {"of", "all-users"}};
    case ConfigurationOf::nobody:
        break;
    }
    session.out.line("Configuration: none. \"keywarden init\" writes " + toUtf8(own) +
                     ", \"keywarden init --all-users\" writes " + toUtf8(shared) + ".");
    return {{"file", nullptr}, {"of", nullptr}};
}

}  // namespace

Json statusDocument(Session& session)
{
    const Registration now = readRegistration(thisSystem());
    showState(session, now);
    const Json configuration = showConfiguration(session);
    const auto orNull = [&now](const Json& value) { return now.known ? value : Json(nullptr); };
    return {{"provider", toUtf8(providerName)},       {"known", now.known},
            {"registered", orNull(now.complete())},   {"present", orNull(now.present)},
            {"asWritten", orNull(now.asWritten)},     {"listed", orNull(now.listed)},
            {"image", orNull(toUtf8(now.image))},     {"file", orNull(toUtf8(now.file))},
            {"fileExists", orNull(isFile(now.file))}, {"configuration", configuration}};
}

void addRegister(CLI::App& program, Session& session)
{
    program.add_subcommand("register", "Register the module with CNG (as an administrator)")
        ->callback([&session] { registerNow(session); });
}

void addUnregister(CLI::App& program, Session& session)
{
    program.add_subcommand("unregister", "Remove the registration (as an administrator)")
        ->callback([&session] { unregisterNow(session); });
}

void addStatus(CLI::App& program, Session& session)
{
    program
        .add_subcommand("status", "Show what is registered with CNG, and which configuration holds")
        ->callback([&session] { session.out.document(statusDocument(session)); });
}

}  // namespace NV::tool
