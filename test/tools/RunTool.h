#pragma once

#include <map>
#include <string>
#include <string_view>
#include <vector>

// Runs programs as a shell would, in an environment of exactly the given variables.
namespace ToolTest {

struct Outcome {
    int code;  // exit code; -1 when a signal ended it
    std::string out;
    std::string err;
};

using Environment = std::map<std::string, std::string>;

// argv[0] is looked up in the usual places.
Outcome run(std::vector<std::string> const& argv, Environment const& environment = {}, std::string_view input = {});
Outcome mox(std::vector<std::string> arguments, Environment const& environment = {}, std::string_view input = {});

// The columns (two blanks or more between them) of the first line of `text` that begins with `first`.
std::vector<std::string> row(std::string_view text, std::string_view first);

// A folder that is deleted with all in it.
class Folder {
public:
    Folder();
    Folder(Folder const&) = delete;
    Folder& operator=(Folder const&) = delete;
    ~Folder();

    std::string const& path() const { return path_; }
    // Makes the file, and the folders that it stands in. Returns its path.
    std::string write(std::string const& name, std::string_view text) const;

private:
    std::string path_;
};

}  // namespace ToolTest
