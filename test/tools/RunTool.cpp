#include "RunTool.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

namespace ToolTest {

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

namespace {

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

namespace {

// 0: it could not be started.
pid_t spawned(std::vector<std::string> const& argv, Environment const& environment, int in, int out, int err) {
    posix_spawn_file_actions_t actions;
    ::posix_spawn_file_actions_init(&actions);
    ::posix_spawn_file_actions_adddup2(&actions, in, STDIN_FILENO);
    ::posix_spawn_file_actions_adddup2(&actions, out, STDOUT_FILENO);
    ::posix_spawn_file_actions_adddup2(&actions, err, STDERR_FILENO);
    std::vector<std::string> arguments = argv, texts = variables(environment);
    pid_t child = 0;
    int const error =
        ::posix_spawnp(&child, argv[0].c_str(), &actions, nullptr, pointers(arguments).data(), pointers(texts).data());
    ::posix_spawn_file_actions_destroy(&actions);
    return error == 0 ? child : 0;
}

int codeOf(pid_t child) {
    int status = 0;
    ::waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace

Outcome run(std::vector<std::string> const& argv, Environment const& environment, std::string_view input) {
    TemporaryFile in, out, err;
    in.write(input);
    pid_t const child = spawned(argv, environment, in.descriptor(), out.descriptor(), err.descriptor());
    if (child == 0) return {127, "", "cannot run " + argv[0]};
    int const code = codeOf(child);
    return {code, out.text(), err.text()};
}

Outcome mox(std::vector<std::string> arguments, Environment const& environment, std::string_view input) {
    arguments.insert(arguments.begin(), MOX_TOOL_PATH);
    return run(arguments, environment, input);
}

// --- beside the test ---

Beside::Beside(std::vector<std::string> const& argv, Environment const& environment)
    : name_(argv[0]), err_(std::make_unique<TemporaryFile>()) {
    for (std::string const& argument : argv) name_ += argument == argv[0] ? "" : " " + argument;
    int pipe[2];
    if (::pipe2(pipe, O_CLOEXEC) != 0) throw std::runtime_error("no pipe");
    TemporaryFile const nothing;
    child_ = spawned(argv, environment, nothing.descriptor(), pipe[1], err_->descriptor());
    ::close(pipe[1]);
    output_ = pipe[0];
    if (child_ == 0) ADD_FAILURE() << "cannot run " << name_;
}

Beside::~Beside() {
    if (child_ != 0) {
        ::kill(child_, SIGKILL);
        codeOf(child_);
    }
    closeOutput();
}

void Beside::closeOutput() {
    if (output_ >= 0) ::close(output_);
    output_ = -1;
}

bool Beside::read() {
    constexpr int longest = 30'000;  // ms
    pollfd descriptor{output_, POLLIN, 0};
    if (output_ < 0 || ::poll(&descriptor, 1, longest) != 1) return false;
    char buffer[65536];
    ssize_t const n = ::read(output_, buffer, sizeof buffer);
    if (n > 0) out_.append(buffer, static_cast<std::size_t>(n));
    return n > 0;
}

std::string const& Beside::until(std::string_view text) {
    while (out_.find(text) == std::string::npos) {
        if (read()) continue;
        ADD_FAILURE() << name_ << " has not written " << text << ", but:\n" << out_ << err_->text();
        break;
    }
    return out_;
}

Outcome Beside::outcome() {
    int const code = codeOf(std::exchange(child_, 0));
    return {code, out_, err_->text()};
}

Outcome Beside::end(int signal) {
    ::kill(child_, signal);
    return wait();
}

Outcome Beside::wait() {
    using Clock = std::chrono::steady_clock;
    auto const end = Clock::now() + std::chrono::seconds(30);
    while (read() && Clock::now() < end) {}
    siginfo_t info{};
    while (Clock::now() < end) {
        if (::waitid(P_PID, static_cast<id_t>(child_), &info, WEXITED | WNOWAIT | WNOHANG) == 0 && info.si_pid != 0)
            return outcome();
        ::poll(nullptr, 0, 5);
    }
    ADD_FAILURE() << name_ << " does not end";
    ::kill(child_, SIGKILL);
    return outcome();
}

std::unique_ptr<Beside> moxBeside(std::vector<std::string> arguments, Environment const& environment) {
    arguments.insert(arguments.begin(), MOX_TOOL_PATH);
    return std::make_unique<Beside>(arguments, environment);
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
