// Counting the cases, and what is said of them at the end.

#include "case_count.h"

#include <gtest/gtest.h>

#include <iostream>

namespace NV::test {

namespace {

size_t cases = 0;

class CaseCount : public testing::Environment {
public:
    void TearDown() override
    {
        std::cout << "fault matrix: " << cases << " cases" << std::endl;
        const testing::UnitTest& program = *testing::UnitTest::GetInstance();
        if (program.test_to_run_count() == program.total_test_count())
            EXPECT_GT(cases, 1000U);
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
