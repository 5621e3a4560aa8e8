#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <string_view>

// Reports mistakes in a file of lines, in a bounded number of lines for any file.
namespace Tool {

// Recognises files that are no text, such as compressed ones.
class Nature {
public:
    void see(std::string_view bytes);  // takes the next bytes of the file

    // "looks like gzip" or "binary: byte 0x00 at offset 17"; empty if it may be text.
    std::string const& text() const { return text_; }

private:
    std::string text_, beginning_;
    std::uint64_t seen_ = 0;  // bytes
};

// Shows the first mistakes when they are found, and counts the others by their kinds. If the file turns out to be no
// text, says what it is, and shows no further mistakes.
class Complaints {
public:
    static constexpr std::uint64_t mostShown = 20;

    // name: the file's name. nature: of the part that was read so far. before: called before anything is written.
    Complaints(std::string name, Nature const& nature, std::function<void()> before = {})
        : name_(std::move(name)), nature_(nature), before_(std::move(before)) {}

    // place: "FILE:LINE:COLUMN". offset: of the mistake in the line, in bytes.
    void add(std::string const& place, std::string const& what, std::string_view line, std::size_t offset);
    void end();  // prints the counts of the mistakes that were not shown
    std::uint64_t count() const { return count_; }

private:
    void keep(std::string const& what);

    std::string name_;
    Nature const& nature_;
    std::function<void()> before_;
    std::uint64_t count_ = 0, notShown_ = 0, others_ = 0;
    bool hasTold_ = false;  // whether it has said that the file is no text
    std::map<std::string, std::uint64_t> kinds_;
};

}  // namespace Tool
