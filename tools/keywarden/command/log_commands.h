// The commands below "keywarden log".

#pragma once

namespace CLI {
class App;
}

namespace NV::tool {

struct Session;

// log on, log off.
void addLogLevels(CLI::App& log, Session& session);

}  // namespace NV::tool
