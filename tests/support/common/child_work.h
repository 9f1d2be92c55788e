// Work that a test does in a second process of its own program: see child.h, which starts it.
//
//   NV_TEST_CHILD(writesOneLine)
//   {
//       TRC("%s", arguments.at(0).c_str());
//       return 0;
//   }
//   ...
//   const ChildResult result = runChild("writesOneLine", {.arguments = {"text"}});

#pragma once

#include <map>
#include <string>
#include <vector>

namespace NV::test {

// Gets the arguments behind the work's name; gives the exit code. An exception that leaves it is
// written to standard error and gives 126.
using ChildWork = int (*)(const std::vector<std::string>& arguments);

std::map<std::string, ChildWork>& childWorks();

struct ChildRegistration {
    ChildRegistration(const char* name, ChildWork work) { childWorks()[name] = work; }
};

}  // namespace NV::test

// The definition of the work's function follows; its parameter is called `arguments`.
#define NV_TEST_CHILD(name)                                                                        \
    static int name([[maybe_unused]] const std::vector<std::string>& arguments);                   \
    static const NV::test::ChildRegistration name##Registration(#name, &name);                     \
    static int name([[maybe_unused]] const std::vector<std::string>& arguments)
