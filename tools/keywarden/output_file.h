// The one way in which the tool writes the file of a result.

#pragma once

#include <span>
#include <string>
#include <vector>

namespace NV::tool {

class Output;

struct OutputRules {
    // Replace an existing file.
    bool force = false;
    // Only the user may read the file.
    bool secret = false;
    // The result is text, which may be written to a terminal.
    bool text = false;
};

// A file that will be written, or standard output for "-". Create it before the user is asked for a
// PIN: the constructor finds out whether the result can be written.
//
// The result is written into a file beside it, which is then renamed, so that the file never exists
// with only a part of its content.
class OutputFile {
public:
    // `name` and `inputs`, the files that the command reads, are UTF-8 as on the command line. Throws
    // Failure when
    //   - the file exists and may not be replaced, or is a folder or read-only;
    //   - it is one of the inputs, under whatever name;
    //   - no file can be created in its folder;
    //   - a result that is not text would go to a terminal.
    // For "-", messages go to standard error from now on.
    OutputFile(Output& out, const std::string& name, const std::vector<std::string>& inputs,
               const OutputRules& rules = {});

    // Writes the whole content, once. Throws Failure; the file is then as it was before.
    void write(std::span<const unsigned char> content) const;

    // For messages: the name, or "standard output".
    std::string name() const;

private:
    std::string name_;
    OutputRules rules_;
    bool stream_;  // standard output or a device such as NUL: nothing to rename
};

}  // namespace NV::tool
