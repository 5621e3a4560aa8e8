#pragma once

#include "tools/Commands.h"

#include <string>
#include <vector>

namespace CLI {
class App;
}

namespace Tool {

// The command line's part for the commands on live state: serve, watch, get, set, ls and tree.
class LiveOptionsLine {
public:
    void addTo(CLI::App& app);
    std::vector<CLI::App*> const& commands() const { return commands_; }
    std::vector<std::string*> texts();  // arguments that are to be taken as they are
    // Whether one of the commands was given; what it came to is in `code`.
    bool run(int& code) const;

private:
    CLI::App* add(CLI::App& app, char const* name, char const* what, char const* help, LiveOptions& options);
    void addServe(CLI::App& app);
    void addWatch(CLI::App& app);
    void addGetAndSet(CLI::App& app);
    void addTree(CLI::App& app);

    ServeOptions serve_;
    WatchOptions watch_;
    GetOptions get_;
    SetOptions set_;
    ListOptions list_;
    TreeOptions tree_;
    std::vector<CLI::App*> commands_;
};

}  // namespace Tool
