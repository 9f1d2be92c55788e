// The layout of --help: nothing is wider than a terminal of 80 columns.

#pragma once

#include <memory>
#include <string>

#include <CLI/CLI.hpp>

namespace NV::tool {

// The text with a line feed in place of spaces, so that no line has more than `columns` characters, if no word
// has more. Line feeds of the text stay.
std::string wrapped(const std::string& text, size_t columns);

// For the program; commands that are added to it later take it over.
std::shared_ptr<CLI::Formatter> helpFormatter();

}  // namespace NV::tool
