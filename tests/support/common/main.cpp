// The main function of every test program: GoogleTest's, unless the program was started by
// runChild to do one registered piece of work.

#include <gtest/gtest.h>

#include <exception>
#include <iostream>
#include <string>

#include "child_work.h"

namespace NV::test {

std::map<std::string, ChildWork>& childWorks()
{
    static std::map<std::string, ChildWork> works;
    return works;
}

namespace {

constexpr std::string_view childOption = "--child=";

int runWork(const std::string& name, const std::vector<std::string>& arguments)
{
    const auto work = childWorks().find(name);
    if (work == childWorks().end()) {
        std::cerr << "no child work named " << name << '\n';
        return 125;
    }
    try {
        return work->second(arguments);
    } catch (const std::exception& error) {
        std::cerr << "child work " << name << ": " << error.what() << '\n';
        return 126;
    }
}

}  // namespace

}  // namespace NV::test

int main(int argc, char** argv)
{
    if (argc > 1 && std::string_view(argv[1]).starts_with(NV::test::childOption)) {
        const std::string name = argv[1] + NV::test::childOption.size();
        return NV::test::runWork(name, {argv + 2, argv + argc});
    }
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
