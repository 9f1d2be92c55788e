// keywarden clean: removes the certificates of keys that are on no present token from "My".

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include <memory>
#include <string>
#include <vector>

#include "command/commands.h"
#include "command/confirmed.h"
#include "command/stale_certificates.h"
#include "failure.h"
#include "formats/certificate.h"
#include "session.h"
#include "system/published.h"
#include "system/token_contents.h"

namespace NV::tool {

namespace {

struct CleanOptions {
    bool all = false;
    bool yes = false;
    bool dryRun = false;
};

// Throws Failure if a token is there, but cannot be read: its certificates are not stale.
std::vector<TokenCertificate> certificatesOfTokens()
{
    const TokenContents tokens = readToken(Tokens::all);
    if (!tokens.answers || (tokens.hasToken && !tokens.read))
        throw Failure(
            "the tokens cannot be read, so it is not known which certificates are on none",
            "Run \"keywarden check\" to find the reason. --all removes the certificates of this "
            "provider without looking at the tokens.");
    return tokens.certificates;
}

std::string countOf(size_t count)
{
    return std::to_string(count) + (count == 1 ? " certificate" : " certificates");
}

// Whether to go on. Nothing was removed if not.
bool wanted(Session& session, const CleanOptions& options, size_t count)
{
    if (options.dryRun)
        session.out.line(countOf(count) + " would be removed.");
    else if (options.yes || confirmed(session, "Remove " + countOf(count) + " from \"My\""))
        return true;
    else
        session.out.line("Nothing was removed.");
    return false;
}

void clean(Session& session, const CleanOptions& options)
{
    requireAnswered(session, options.yes || options.dryRun,
                    "Give --yes to remove, or --dry-run to see what.");
    const std::vector<TokenCertificate> present =
        options.all ? std::vector<TokenCertificate>() : certificatesOfTokens();
    const std::vector<StoredCertificate> stored = certificatesInMy();
    const std::vector<const StoredCertificate*> stale = staleEntries(stored, present);
    session.out.line(stale.empty() ? "\"My\" has no certificate to remove."
                     : options.all ? "In \"My\" for this provider:"
                                   : "In \"My\" for this provider, but on no token:");
    for (const StoredCertificate* entry : stale)
        session.out.line("  " + lineOf(*entry));
    const bool remove = !stale.empty() && wanted(session, options, stale.size());
    if (remove) {
        for (const StoredCertificate* entry : stale)
            removeFromMy(*entry->certificate);
        session.out.line("Removed: " + countOf(stale.size()) + ".");
    }
    session.out.document(
        {{"certificates", toJson(stale)}, {"removed", remove ? stale.size() : size_t{0}}});
}

}  // namespace

void addClean(CLI::App& program, Session& session)
{
    CLI::App& command = *program.add_subcommand(
        "clean", "Remove certificates from \"My\" whose keys are on no token");
    const auto options = std::make_shared<CleanOptions>();
    command.add_flag("--all", options->all,
                     "Remove all certificates of this provider, without looking at the tokens");
    CLI::Option* yes = command.add_flag("--yes", options->yes, "Do not ask");
    command.add_flag("--dry-run", options->dryRun, "Only show what would be removed")
        ->excludes(yes);
    command.callback([&session, options] { clean(session, *options); });
}

}  // namespace NV::tool
