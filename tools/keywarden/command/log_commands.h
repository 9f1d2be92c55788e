// The commands below "keywarden log".

#pragma once

namespace CLI {
class App;
}

namespace NV::tool {

struct Session;

// log on, log off, log where.
void addLogCommands(CLI::App& log, Session& session);

}  // namespace NV::tool
