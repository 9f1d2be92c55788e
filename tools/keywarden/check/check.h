// keywarden check: its steps, one file for each subject, and the results that they share.

#pragma once

#include <windows.h>

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "output.h"
#include "p11/module.h"
#include "p11/p11.h"

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

// The results of all steps so far. A step whose preconditions are missing is skipped.
struct Findings {
    std::vector<Step> steps;

    bool configurationRead = false;
    std::filesystem::path logFolder;  // empty: no log files are written
    std::string library;              // p11File; empty: no library to check
    std::unique_ptr<Pkcs11> p11;      // null: no usable function list
    bool discovered = false;          // slots and tokens could be read
    const P11Slot* slot = nullptr;    // the slot that the provider would use

    // Each adds a step with that outcome.
    void ok(const std::string& name, const std::string& text);
    void warn(const std::string& name, const std::string& text, const std::string& advice);
    void fail(const std::string& name, const std::string& text, const std::string& advice);
    void skip(const std::string& name, const std::string& text);
    // Adds a line of details to the latest step.
    void detail(const std::string& text);
};

// Each function adds the steps named beside it. None asks for a PIN or logs in.
void checkConfiguration(Findings& findings);  // configuration-file, configuration-lines,
                                              // configuration-values, behaviour. Sets the
                                              // behaviour for the steps that follow.
void checkLogFolder(Findings& findings);      // log-folder
void checkLibrary(Findings& findings);        // library-file, library-architecture,
                                              // library-dependencies, library-loads,
                                              // function-list
void checkTokens(Findings& findings);         // slots, chosen-slot, pin
void checkCertificates(Findings& findings);   // certificates, public-keys, published
void checkSystem(Findings& findings);         // registered

// The step of checkSystem, for a system that a test can replace.
void checkRegistration(Findings& findings, const CngSystem& system);

}  // namespace NV::tool
