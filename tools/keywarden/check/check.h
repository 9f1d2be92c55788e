// keywarden check: its steps, one file for each subject, and the results that they share.

#pragma once

#include <windows.h>

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "p11/module.h"
#include "p11/p11.h"
#include "system/call_watch.h"
#include "system/token_contents.h"

namespace NV::tool {

struct CngSystem;

enum class Outcome { ok, warning, failed, skipped };

// One step of the list. Texts are UTF-8.
struct Step {
    std::string name;  // "library-loads"; scripts rely on it, so it never changes
    Outcome outcome = Outcome::ok;
    std::string text;    // the result
    std::string advice;  // what to do next; empty if nothing is wrong
    std::vector<std::string> details;
};

// Follows the steps as they run.
class Progress {
public:
    Progress() = default;
    virtual ~Progress() = default;
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    // A step begins that may take long.
    virtual void begun(const std::string& step) = 0;
    // It calls that function of the vendor's library or of the system.
    virtual void calls(const std::string& function) = 0;
    // It waits for the user, or no longer.
    virtual void waits(bool forUser) = 0;
    // The results of a step are complete.
    virtual void ended(const Step& step) = 0;
};

// The results of all steps so far. A step whose preconditions are missing is skipped.
struct Findings {
    std::vector<Step> steps;
    Progress* progress = nullptr;  // null: nobody follows

    bool configurationRead = false;
    std::filesystem::path logFolder;             // empty: no log files are written
    std::string library;                         // p11File; empty: no library to check
    std::unique_ptr<Pkcs11> p11;                 // null: no usable function list
    std::unique_ptr<CallWatch> watch;            // of its calls; null without p11
    bool discovered = false;                     // slots and tokens could be read
    const P11Slot* slot = nullptr;               // the slot that the provider would use
    std::vector<TokenCertificate> certificates;  // on its token

    // Each adds a step with that outcome.
    void ok(const std::string& name, const std::string& text);
    void warn(const std::string& name, const std::string& text, const std::string& advice);
    void fail(const std::string& name, const std::string& text, const std::string& advice);
    void skip(const std::string& name, const std::string& text);
    // Adds a line of details to the latest step.
    void detail(const std::string& text);

    // Announces a step that may take long, and a call in it.
    void begin(const std::string& name);
    void call(const std::string& function) const;
    // Reports the steps that are not yet reported. `begin` does it, too.
    void flush();

private:
    void add(const std::string& name, Outcome outcome, const std::string& text,
             const std::string& advice);

    size_t reported_ = 0;
};

// Each function adds the steps named beside it. None asks for a PIN or logs in, except checkSigning.
void checkConfiguration(Findings& findings);  // configuration-file, configuration-lines,
                                              // configuration-values, behaviour. Sets the
                                              // behaviour for the steps that follow.
void checkLogFolder(Findings& findings);      // log-folder
void checkLibrary(Findings& findings);        // library-file, library-architecture,
                                              // library-dependencies, library-loads,
                                              // function-list
void checkTokens(Findings& findings);         // slots, chosen-slot, pin
void checkAnswer(Findings& findings);         // slots, without a judgement on them
void checkCertificates(Findings& findings);   // certificates, authorities, public-keys, published,
                                              // stale-entries
void checkSigning(Findings& findings);        // signatures. Asks for the PIN.
void checkUnloading(Findings& findings);      // library-unloads. Releases the library.
void checkSystem(Findings& findings);         // registered

// The step of checkSystem, for a system that a test can replace.
void checkRegistration(Findings& findings, const CngSystem& system);

}  // namespace NV::tool
