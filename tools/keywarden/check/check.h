// keywarden check: the steps, one file a subject, and what they hand on to each other.

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
    std::string name;  // "library-loads": for scripts, never changed
    Outcome outcome = Outcome::ok;
    std::string text;    // what was found
    std::string advice;  // the next thing to do; empty where all is well
    std::vector<std::string> details;
};

// What earlier steps found out. A step whose ground is missing is skipped.
struct Findings {
    std::vector<Step> steps;

    bool configurationRead = false;
    std::filesystem::path logFolder;  // empty: no log files
    std::string library;              // p11File; empty: none to look at
    std::unique_ptr<Pkcs11> p11;      // null: no usable function list
    bool discovered = false;          // slots and tokens could be read
    const P11Slot* slot = nullptr;    // that the provider would choose

    // Adds a step that went well, and the kinds that did not.
    void ok(const std::string& name, const std::string& text);
    void warn(const std::string& name, const std::string& text, const std::string& advice);
    void fail(const std::string& name, const std::string& text, const std::string& advice);
    void skip(const std::string& name, const std::string& text);
    // A line below the latest step.
    void detail(const std::string& text);
};

// Each adds its steps. None asks for a PIN or logs in.
void checkConfiguration(Findings& findings);  // configuration-file, configuration-lines,
                                              // configuration-values
void checkLogFolder(Findings& findings);      // log-folder
void checkLibrary(Findings& findings);        // library-file, library-architecture,
                                              // library-dependencies, library-loads,
                                              // function-list
void checkTokens(Findings& findings);         // slots, chosen-slot, pin
void checkCertificates(Findings& findings);   // certificates, public-keys, published
void checkSystem(Findings& findings);         // registered

// The step of checkSystem, on a system that tests put in its place.
void checkRegistration(Findings& findings, const CngSystem& system);

}  // namespace NV::tool
