// The values of the four logging keys. The input is a value, a line feed, and the profile folder
// that replaces "~".

#include <strings.h>

#include <optional>
#include <sstream>
#include <stdexcept>

#include "config/config_values.h"
#include "target.h"

namespace NV::fuzz {

namespace {

bool isName(const std::string& text, const std::string& name)
{
    return text.size() == name.size() && strncasecmp(text.c_str(), name.c_str(), name.size()) == 0;
}

uint32_t expectedLevel(const std::string& value)
{
    if (isName(value, "trace"))
        return 0x7F;
    if (isName(value, "debug"))
        return 0x7E;
    if (isName(value, "warn"))
        return 0x70;
    if (isName(value, "error"))
        return 0x60;
    if (isName(value, "severe"))
        return 0x40;
    return 0x7C;
}

uint32_t expectedTypes(const std::string& value)
{
    uint32_t types = 0;
    std::istringstream stream(value);
    for (std::string piece; std::getline(stream, piece, ',');) {
        piece.erase(0, std::min(piece.find_first_not_of(' '), piece.size()));
        while (piece.ends_with(' '))
            piece.pop_back();
        if (isName(piece, "console"))
            types |= 1;
        if (isName(piece, "file"))
            types |= 2;
    }
    return types;
}

// The days, or the text of the error.
struct Rotation {
    int32_t days = 0;
    std::string error;

    bool operator==(const Rotation&) const = default;
};

Rotation rotation(const std::string& value, int32_t current)
{
    try {
        return {parseLogRotate(value, current), {}};
    } catch (const std::invalid_argument& error) {
        return {0, std::string("invalid ") + error.what()};
    } catch (const std::out_of_range& error) {
        return {0, std::string("range ") + error.what()};
    }
}

Rotation expectedRotation(const std::string& value, int32_t current)
{
    uint64_t days = 0;
    for (const char c : value) {
        if (c < '0' || c > '9')
            return {current, {}};
        days = std::min<uint64_t>(days * 10 + static_cast<uint64_t>(c - '0'), UINT32_MAX);
    }
    if (value.empty())
        return {0, "invalid invalid stoi argument"};
    if (days > INT32_MAX)
        return {0, "range stoi argument out of range"};
    return {static_cast<int32_t>(days), {}};
}

// The parts of the value between the "~" characters, joined with the profile folder.
std::string expectedStore(const std::string& value, const std::string& profile)
{
    std::string path;
    size_t begin = 0;
    for (size_t sign = value.find('~'); sign != std::string::npos; sign = value.find('~', begin)) {
        path += value.substr(begin, sign - begin) + profile;
        begin = sign + 1;
    }
    return path + value.substr(begin);
}

}  // namespace

}  // namespace NV::fuzz

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    using namespace NV::fuzz;
    Input input(data, size);
    const std::string value = input.line();
    const std::string profile = input.restAsText();

    HOLDS(NV::parseLogLevel(value) == expectedLevel(value));
    HOLDS(NV::parseLogTypes(value) == expectedTypes(value));
    for (const int32_t current : {7, 0, -1})
        HOLDS(rotation(value, current) == expectedRotation(value, current));
    HOLDS(NV::expandLogStore(value, profile) == expectedStore(value, profile));
    return 0;
}
