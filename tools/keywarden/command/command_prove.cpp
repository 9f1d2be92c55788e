// keywarden prove: shows on a machine that the provider works as a part of CNG.

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "base/encoding.h"
#include "command/commands.h"
#include "command/options.h"
#include "exit_code.h"
#include "output_file.h"
#include "prove/prove.h"
#include "prove/prove_report.h"
#include "session.h"
#include "text.h"

namespace NV::tool {

namespace {

struct ProveCommand {
    ProveOptions options;
    std::string page;
    bool force = false;
};

// Shows each step when it ends, and on a terminal the one that is under way.
class ShownProof : public ProofListener {
public:
    explicit ShownProof(Output& out) : out_(out) {}
    ~ShownProof() override { out_.progress({}); }
    ShownProof(const ShownProof&) = delete;
    ShownProof& operator=(const ShownProof&) = delete;

    void begun(const std::string& step, const std::string& key, bool asksForPin) override
    {
        out_.progress(step + (key.empty() ? "" : " " + key) +
                      (asksForPin ? ": waits for the PIN ..." : " ..."));
    }
    void ended(const Proof& proof) override
    {
        out_.progress({});
        for (const std::string& line : linesOf(out_, proof))
            out_.line(line);
    }

private:
    Output& out_;
};

// `version` is that of the program, "keywarden 0.1.0".
void proveNow(Session& session, const std::string& version, const ProveCommand& command)
{
    std::optional<OutputFile> page;
    if (!command.page.empty())
        page.emplace(session.out, command.page, std::vector<std::string>(),
                     OutputRules{.force = command.force, .text = true});
    session.cng = true;
    const ProofPlace place = thisPlace(version.substr(version.rfind(' ') + 1));
    session.out.line("keywarden " + place.version + ", " + place.system + ", " + place.time);
    ShownProof shown(session.out);
    const std::vector<Proof> proofs = prove(session, command.options, shown);
    session.out.line();
    session.out.line(summaryOf(proofs));
    if (page) {
        const std::string text = pageOf(place, proofs);
        page->write(Bytes(text.begin(), text.end()));
        session.out.line("Page: " + page->name());
    }
    session.out.document(reportOf(place, proofs));
    if (countOf(proofs, ProofOutcome::failed) > 0)
        throw CLI::RuntimeError(static_cast<int>(ExitCode::failed));
}

}  // namespace

void addProve(CLI::App& program, Session& session)
{
    CLI::App& command = *program.add_subcommand(
        "prove", "Try the provider through CNG, Schannel and .NET, and report each step");
    const auto given = std::make_shared<ProveCommand>();
    command
        .add_option(
            "--key", given->options.key,
            "Name, subject, thumbprint or label of the key (default: the first RSA key and the "
            "first elliptic curve key)")
        ->option_text("NAME");
    command.add_flag("--pin-dialog", given->options.pinDialog,
                     "Also take the steps that use a private key; the PIN dialog appears for each");
    command.add_flag("--register", given->options.registers,
                     "Register the module for this run if it is not (as an administrator)");
    command.add_flag("--unregister", given->options.unregisters,
                     "Remove the registration at the end, whoever made it (as an administrator)");
    command
        .add_option("--page", given->page,
                    "Also write the report as an HTML page; - is standard output")
        ->option_text("FILE");
    addForceOption(command, given->force);
    // Not in the help: for systems whose crypt32.dll opens no keys of CNG.
    command
        .add_option_function<std::string>(
            "--acquire",
            [given](const std::string& path) { given->options.acquire = toPath(path); })
        ->group("");
    command.callback([&command, &program, &session, given] {
        if (given->page.empty())
            refuseIfGiven(command, "--force", "applies only with --page");
        proveNow(session, program.version(), *given);
    });
}

}  // namespace NV::tool
