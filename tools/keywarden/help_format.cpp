// Wrapping the descriptions of options.

#include "help_format.h"

#include <sstream>

namespace NV::tool {

namespace {

constexpr size_t terminalColumns = 80;
constexpr size_t descriptionColumn = 30;

class HelpFormatter : public CLI::Formatter {
public:
    HelpFormatter() { column_width(descriptionColumn); }

    // CLI11 indents the lines after the first one.
    std::string make_option_desc(const CLI::Option* option) const override
    {
        return wrapped(CLI::Formatter::make_option_desc(option),
                       terminalColumns - descriptionColumn - 1);
    }
};

}  // namespace

std::string wrapped(const std::string& text, size_t columns)
{
    std::string result;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        if (!result.empty())
            result += '\n';
        size_t used = 0;
        std::istringstream words(line);
        for (std::string word; words >> word; used += word.size()) {
            if (used > 0) {
                const bool fits = used + 1 + word.size() <= columns;
                result += fits ? ' ' : '\n';
                used = fits ? used + 1 : 0;
            }
            result += word;
        }
    }
    return result;
}

std::shared_ptr<CLI::Formatter> helpFormatter()
{
    return std::make_shared<HelpFormatter>();
}

}  // namespace NV::tool
