#pragma once

#include <csignal>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include <sys/types.h>

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

// A program that runs beside the test, in an environment of exactly the given variables. Killed when it is left alone.
class Beside {
public:
    explicit Beside(std::vector<std::string> const& argv, Environment const& environment = {});
    Beside(Beside const&) = delete;
    Beside& operator=(Beside const&) = delete;
    ~Beside();

    // All that it has written to standard output so far, once that holds `text`. Fails the test, and returns what there
    // is, when that does not come: it has ended, or half a minute has passed.
    std::string const& until(std::string_view text);
    Outcome end(int signal = SIGTERM);
    Outcome wait();      // until it ends by itself; as until()
    void closeOutput();  // nobody reads on
    pid_t id() const { return child_; }

private:
    bool read();  // more of its output; false at the end, or when it takes too long
    Outcome outcome();

    std::string name_;
    pid_t child_ = 0;
    int output_ = -1;
    std::string out_;
    std::unique_ptr<class TemporaryFile> err_;
};
std::unique_ptr<Beside> moxBeside(std::vector<std::string> arguments, Environment const& environment = {});

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
