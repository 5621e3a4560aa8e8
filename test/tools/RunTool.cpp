#include "RunTool.h"

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>

#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

namespace ToolTest {

namespace {

class TemporaryFile {
public:
    TemporaryFile() : file_(std::tmpfile()) {
        if (!file_) throw std::runtime_error("no temporary file");
    }
    TemporaryFile(TemporaryFile const&) = delete;
    TemporaryFile& operator=(TemporaryFile const&) = delete;
    ~TemporaryFile() { std::fclose(file_); }

    int descriptor() const { return ::fileno(file_); }
    void write(std::string_view text) {
        std::fwrite(text.data(), 1, text.size(), file_);
        std::rewind(file_);
    }
    std::string text() {
        std::rewind(file_);
        std::string all;
        char buffer[4096];
        while (std::size_t const n = std::fread(buffer, 1, sizeof buffer, file_)) all.append(buffer, n);
        return all;
    }

private:
    std::FILE* file_;
};

std::vector<char*> pointers(std::vector<std::string>& texts) {
    std::vector<char*> result;
    for (std::string& text : texts) result.push_back(text.data());
    result.push_back(nullptr);
    return result;
}

std::vector<std::string> variables(Environment const& environment) {
    std::vector<std::string> texts;
    for (auto const& [name, value] : environment) texts.push_back(name + "=" + value);
    // What the sanitizers need to behave in the child as they do here.
    for (char const* const name : {"PATH", "ASAN_OPTIONS", "UBSAN_OPTIONS", "LSAN_OPTIONS"})
        if (char const* const value = std::getenv(name)) texts.push_back(std::string(name) + "=" + value);
    return texts;
}

}  // namespace

Outcome run(std::vector<std::string> const& argv, Environment const& environment, std::string_view input) {
    TemporaryFile in, out, err;
    in.write(input);
    posix_spawn_file_actions_t actions;
    ::posix_spawn_file_actions_init(&actions);
    ::posix_spawn_file_actions_adddup2(&actions, in.descriptor(), STDIN_FILENO);
    ::posix_spawn_file_actions_adddup2(&actions, out.descriptor(), STDOUT_FILENO);
    ::posix_spawn_file_actions_adddup2(&actions, err.descriptor(), STDERR_FILENO);
    std::vector<std::string> arguments = argv, texts = variables(environment);
    pid_t child = 0;
    int const error =
        ::posix_spawnp(&child, argv[0].c_str(), &actions, nullptr, pointers(arguments).data(), pointers(texts).data());
    ::posix_spawn_file_actions_destroy(&actions);
    if (error != 0) return {127, "", "cannot run " + argv[0]};
    int status = 0;
    ::waitpid(child, &status, 0);
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, out.text(), err.text()};
}

Outcome mox(std::vector<std::string> arguments, Environment const& environment, std::string_view input) {
    arguments.insert(arguments.begin(), MOX_TOOL_PATH);
    return run(arguments, environment, input);
}

std::vector<std::string> row(std::string_view text, std::string_view first) {
    std::size_t begin = 0;
    while (begin < text.size() && !text.substr(begin).starts_with(first)) begin = text.find('\n', begin) + 1;
    std::string_view line = text.substr(begin, text.find('\n', begin) - begin);
    std::vector<std::string> columns;
    while (!line.empty()) {
        auto const gap = line.find("  ");
        columns.emplace_back(line.substr(0, gap));
        line = gap == std::string_view::npos ? std::string_view() : line.substr(gap);
        while (line.starts_with(' ')) line.remove_prefix(1);
    }
    return columns;
}

Folder::Folder() {
    std::string name = (std::filesystem::temp_directory_path() / "mox-test-XXXXXX").string();
    if (!::mkdtemp(name.data())) throw std::runtime_error("no temporary folder");
    path_ = name;
}

Folder::~Folder() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

std::string Folder::write(std::string const& name, std::string_view text) const {
    std::filesystem::path const file = path_ + "/" + name;
    std::filesystem::create_directories(file.parent_path());
    std::ofstream(file, std::ios::binary) << text;
    return file.string();
}

}  // namespace ToolTest
