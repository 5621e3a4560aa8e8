#include "tools/lib/Input.h"

#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <unistd.h>

namespace Tool {

Input::Input(std::string const& path)
    : name_(path == "-" ? "standard input" : shown(path)),
      file_(path == "-" ? STDIN_FILENO : ::open(path.c_str(), O_RDONLY | O_CLOEXEC)) {
    if (file_ < 0) throw Failure(badUsage, "cannot open " + name_ + ": " + std::strerror(errno));
}

Input::~Input() {
    if (file_ != STDIN_FILENO) ::close(file_);
}

std::size_t Input::read(char* to, std::size_t size) {
    ssize_t n = 0;
    do n = ::read(file_, to, size);
    while (n < 0 && errno == EINTR);
    if (n < 0) throw Failure(badUsage, "cannot read " + name_ + ": " + std::strerror(errno));
    return static_cast<std::size_t>(n);
}

std::optional<std::string> Input::all(std::size_t most) {
    std::string text;
    char buffer[65536];
    while (std::size_t const n = read(buffer, sizeof buffer)) {
        if (n > most - text.size()) return std::nullopt;
        text.append(buffer, n);
    }
    return text;
}

std::string Input::tooLarge(std::uint64_t most) const {
    return name_ + " holds more than " + std::to_string(most >> 20) + " MiB";
}

LineReader::LineReader(Input& input, std::function<void()> beforeRead, std::uint64_t most)
    : input_(input), beforeRead_(std::move(beforeRead)), most_(most), buffer_(65536, '\0') {}

bool LineReader::fill() {
    if (at_ < filled_ || ended_) return !ended_;
    if (beforeRead_) beforeRead_();
    at_ = 0;
    filled_ = input_.read(buffer_.data(), buffer_.size());
    ended_ = filled_ == 0;
    bytesRead_ += filled_;
    if (bytesRead_ > most_) throw Failure(badUsage, input_.tooLarge(most_) + ", which is the limit");
    nature_.see(unread());
    return !ended_;
}

void LineReader::skipLine() {
    std::uint64_t const begin = bytesRead_;
    while (fill()) {
        if (bytesRead_ - begin > longestPassed)
            throw Failure(badUsage, input_.name() + ":" + std::to_string(number_) + ": this line has no end within " +
                                        std::to_string(longestPassed >> 20) + " MiB: this is no file of lines");
        auto const newline = unread().find('\n');
        at_ = newline == std::string_view::npos ? filled_ : at_ + newline + 1;
        if (newline != std::string_view::npos) return;
    }
}

bool LineReader::next() {
    if (isTooLong_) skipLine();
    isTooLong_ = false;
    line_.clear();
    if (!fill()) return false;
    ++number_;
    while (fill()) {
        auto const newline = unread().find('\n');
        std::string_view const piece = unread().substr(0, newline);
        isTooLong_ = piece.size() > longest - line_.size();
        std::string_view const part = piece.substr(0, longest - line_.size());
        line_ += part;
        at_ += part.size();
        if (isTooLong_) return true;
        if (newline == std::string_view::npos) continue;
        ++at_;
        break;
    }
    if (line_.ends_with('\r')) line_.pop_back();
    return true;
}

bool LineReader::isBlank() const {
    return line_.starts_with('#') || line_.find_first_not_of(" \t") == std::string::npos;
}

std::string LineReader::place(std::size_t offset) const {
    return input_.name() + ":" + std::to_string(number_) + ":" + std::to_string(offset + 1);
}

}  // namespace Tool
