// Counting the cases, and what is said of them at the end.

#include "case_count.h"

#include <gtest/gtest.h>

#include <iostream>
#include <string_view>

namespace NV::test {

namespace {

size_t cases = 0;

bool matrixWasAskedFor(const testing::UnitTest& program)
{
    for (int i = 0; i < program.total_test_suite_count(); ++i) {
        const testing::TestSuite& suite = *program.GetTestSuite(i);
        for (int j = 0; j < suite.total_test_count(); ++j) {
            const testing::TestInfo& test = *suite.GetTestInfo(j);
            if (test.should_run() && std::string_view(test.name()).starts_with("everyFault"))
                return true;
        }
    }
    return false;
}

class CaseCount : public testing::Environment {
public:
    void TearDown() override
    {
        std::cout << "fault matrix: " << cases << " cases" << std::endl;
        const testing::UnitTest& program = *testing::UnitTest::GetInstance();
        const bool whole = program.test_to_run_count() == program.total_test_count();
        if (whole || matrixWasAskedFor(program)) {
            EXPECT_GT(cases, whole ? 1000U : 0U);
        }
    }
};

// GoogleTest owns it.
const testing::Environment* const caseCount = testing::AddGlobalTestEnvironment(new CaseCount);

}  // namespace

void countCase()
{
    ++cases;
}

}  // namespace NV::test
