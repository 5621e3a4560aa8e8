#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <string_view>

// What is wrong with a file of lines, told in a bounded number of lines whatever the file is.
namespace Tool {

// What a file is that holds no lines of text, as far as that shows.
class Nature {
public:
    void see(std::string_view bytes);  // the next ones of the file

    // "looks like gzip", "binary: byte 0x00 at offset 17"; empty: it may well be text.
    std::string const& text() const { return text_; }

private:
    std::string text_, beginning_;
    std::uint64_t seen_ = 0;  // bytes
};

// Shows the first mistakes as they are found, and counts the others by their kinds. The first one in what is no text
// says what it is, and ends the complaints.
class Complaints {
public:
    static constexpr std::uint64_t mostShown = 20;

    // name: the file's. nature: of what has been read of it so far. before: called before anything is written.
    Complaints(std::string name, Nature const& nature, std::function<void()> before = {})
        : name_(std::move(name)), nature_(nature), before_(std::move(before)) {}

    // place: "FILE:LINE:COLUMN". offset: of the mistake in the line.
    void add(std::string const& place, std::string const& what, std::string_view line, std::size_t offset);
    void end();  // says what has not been shown
    std::uint64_t count() const { return count_; }

private:
    void keep(std::string const& what);

    std::string name_;
    Nature const& nature_;
    std::function<void()> before_;
    std::uint64_t count_ = 0, notShown_ = 0, others_ = 0;
    bool hasTold_ = false;  // that it is no text
    std::map<std::string, std::uint64_t> kinds_;
};

}  // namespace Tool
