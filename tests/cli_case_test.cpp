// The command-line case builder itself: what a case cannot check fails the test instead of passing unseen.
#include <gtest/gtest-spi.h>

#include <functional>

#include "support/cli_case.h"
#include "support/sandbox.h"

namespace {

// The failures `run` reports, each as its message.
std::vector<std::string> failures(const std::function<void()>& run)
{
    testing::TestPartResultArray results;
    {
        testing::ScopedFakeTestPartResultReporter catcher(
            testing::ScopedFakeTestPartResultReporter::INTERCEPT_ONLY_CURRENT_THREAD, &results);
        run();
    }
    std::vector<std::string> messages;
    for (int i = 0; i < results.size(); i++) messages.push_back(results.GetTestPartResult(i).message());
    return messages;
}

TEST(CliCase, WhatCannotBeCheckedFails)
{
    KOR_SANDBOX_OR_SKIP();
    sandbox::Device d;
    d.with_default_layout();
    const struct {
        cli::Case c;
        const char* failure;  // the one failure it gives
    } rows[] = {
        {cli::Case("no exit status").args("help"), "the case names no exit status"},
        {cli::Case("a field name mistyped").args("partset 1 S").status(0).stored("set[1].nmae", "S"),
         "no \"KOR data\" field is named set[1].nmae"},
        {cli::Case("a record that does not exist").args("partset 1 S").status(0)
             .stored_nonzero_among({"partinfo[22]"}, {}),
         "no \"KOR data\" field is named partinfo[22]"},
        {cli::Case("a field outside the records named").args("partset 1 S").status(0)
             .stored_nonzero_among({"set[1]"}, {{"set[2].name", "S"}}),
         "no \"KOR data\" field is named set[2].name"},
        {cli::Case("an expectation not met").args("help").status(0).stdout_has("no such text"),
         "expected stdout holds \"no such text\""},
    };
    for (const auto& row : rows) {
        const std::vector<std::string> got = failures([&] { cli::run(row.c, d); });
        ASSERT_EQ(got.size(), 1u) << row.c.name;
        EXPECT_NE(got[0].find(row.failure), std::string::npos) << row.c.name << ": " << got[0];
    }
}

}  // namespace
