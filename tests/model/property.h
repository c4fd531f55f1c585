// Runs a property as a test of its own.
#pragma once

#include <gtest/gtest.h>
#include <rapidcheck.h>

#include <cstdlib>
#include <sstream>
#include <string>
#include <utility>

// RC_PARAMS in the environment has the last word: "max_success=100000" runs longer, "seed=1" or the
// "reproduce=..." that a failure prints runs the same again.
template <class Property>
void ExpectProperty(const std::string& defaults, Property&& property)
{
    // Read once in a process, by whichever property comes first.
    static const bool bSet = [&]
    {
        const char* given = std::getenv("RC_PARAMS");
        const std::string all = defaults + (given ? std::string(" ") + given : "");
        return setenv("RC_PARAMS", all.c_str(), 1) == 0;
    }();
    ASSERT_TRUE(bSet);
    const testing::TestInfo& test = *testing::UnitTest::GetInstance()->current_test_info();
    const std::string name = std::string(test.test_suite_name()) + "/" + test.name();
    const rc::detail::TestResult result = rc::detail::checkTestable(
        std::forward<Property>(property), rc::detail::TestMetadata{name, name});
    std::ostringstream message;
    rc::detail::printResultMessage(result, message);
    EXPECT_TRUE(result.is<rc::detail::SuccessResult>()) << message.str();
}
