// The tables of docs/modes.md, which users read, against what the module does.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "keystore/token_status.h"

namespace NV {
namespace {

using Cells = std::vector<std::string>;

// The cells of the rows that stand below a heading of the page and before the next one.
std::vector<Cells> rowsBelow(const std::string& heading)
{
    std::ifstream page(KEYWARDEN_DOCS "/modes.md");
    std::vector<Cells> rows;
    bool inside = false;
    for (std::string line; std::getline(page, line);) {
        if (line.starts_with("## "))
            inside = line == "## " + heading;
        if (!inside || !line.starts_with("| "))
            continue;
        std::istringstream text(line.substr(2));
        Cells cells;
        for (std::string cell; std::getline(text, cell, '|');) {
            const size_t begin = std::min(cell.find_first_not_of(' '), cell.size());
            cells.push_back(cell.substr(begin, cell.find_last_not_of(' ') + 1 - begin));
        }
        rows.push_back(cells);
    }
    return rows;
}

std::string textOf(const NamedStatus& status)
{
    char number[16];
    std::snprintf(number, sizeof number, "0x%08X", static_cast<unsigned>(status.value));
    return "`" + std::string(status.name) + "` " + number;
}

TEST(ModesPage, hasEachRowOnceAndInOrder)
{
    std::vector<std::string> expected;
    for (int row = 1; row <= 30; ++row)
        expected.push_back("M" + std::to_string(row));
    std::vector<std::string> found;
    for (const Cells& row : rowsBelow("What is different")) {
        if (row.front().starts_with('M')) {
            found.push_back(row.front());
            EXPECT_EQ(5U, row.size()) << row.front();
        }
    }
    EXPECT_EQ(expected, found);
}

TEST(ModesPage, hasTheStatusOfEachResultOfTheToken)
{
    using Statuses = std::multimap<std::string, std::string>;
    Statuses expected = {{"any other", textOf(otherTokenFailure)},
                         {"the token has no such key object", textOf(noKeyFound)}};
    for (const TokenStatus& row : tokenStatuses)
        expected.emplace("`" + std::string(row.resultName) + "`", textOf(row.status));
    Statuses found;
    for (const Cells& row : rowsBelow("Statuses of a failed token call in modern")) {
        ASSERT_EQ(2U, row.size());
        if (row[0] == "PKCS#11" || row[0].starts_with("---"))
            continue;
        std::istringstream results(row[0]);
        for (std::string result; std::getline(results >> std::ws, result, ',');)
            found.emplace(result, row[1]);
    }
    EXPECT_EQ(expected, found);
}

}  // namespace
}  // namespace NV
