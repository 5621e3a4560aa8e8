#pragma once

#include "tools/Output.h"

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

// What the command line names as input, read once, from front to back, in memory of bounded size.
namespace Tool {

// A file, or standard input. Throws Failure (bad usage) when it cannot be opened or read.
class Input {
public:
    explicit Input(std::string const& path);  // "-": standard input
    Input(Input const&) = delete;
    Input& operator=(Input const&) = delete;
    ~Input();

    std::string const& name() const { return name_; }  // for messages
    int descriptor() const { return file_; }
    std::size_t read(char* to, std::size_t size);  // bytes; 0 at the end

private:
    std::string name_;
    int file_;
};

class LineReader {
public:
    static constexpr std::size_t longest = 1u << 20;  // bytes of a line

    // beforeRead: called before each read, which may wait for whoever writes the input.
    explicit LineReader(Input& input, std::function<void()> beforeRead = {});

    bool next();  // whether there is one more line
    std::uint64_t number() const { return number_; }
    std::string_view text() const { return line_; }  // without the line's end, which may be "\r\n"
    bool isTooLong() const { return isTooLong_; }    // text() is its beginning; the rest is passed over
    bool isBlank() const;  // nothing but blanks and tabs, or a comment: a "#" is its first byte
    std::uint64_t bytesRead() const { return bytesRead_; }
    std::string place(std::size_t offset) const;  // "FILE:LINE:COLUMN", which count from 1; columns are bytes

private:
    bool fill();      // whether there are unread bytes in the buffer
    void skipLine();  // the rest of it
    std::string_view unread() const { return std::string_view(buffer_).substr(at_, filled_ - at_); }

    Input& input_;
    std::function<void()> beforeRead_;
    std::string buffer_;
    std::size_t at_ = 0, filled_ = 0;  // of the buffer
    std::string line_;
    bool isTooLong_ = false, ended_ = false;
    std::uint64_t number_ = 0, bytesRead_ = 0;
};

}  // namespace Tool
