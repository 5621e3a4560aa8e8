#pragma once

#include "tools/lib/Complaints.h"
#include "tools/lib/Output.h"

#include <cstdint>
#include <functional>
#include <limits>
#include <optional>
#include <string>
#include <string_view>

// What the command line names as input, read once, from front to back, in memory of bounded size. A name may lead to
// something without an end, such as a device: what is kept of a file, and what is passed over of a line, has a limit.
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

    static constexpr std::size_t largest = 256u << 20;           // bytes of a file that is kept in memory
    std::optional<std::string> all(std::size_t most = largest);  // nothing: there are more bytes than that
    std::string tooLarge(std::uint64_t most) const;              // "NAME holds more than 256 MiB"

private:
    std::string name_;
    int file_;
};

class LineReader {
public:
    static constexpr std::size_t longest = 1u << 20;         // bytes of a line
    static constexpr std::size_t longestPassed = 64u << 20;  // of one that is passed over; what goes on has no lines

    // beforeRead: called before each read, which may wait for whoever writes the input. most: bytes of the input.
    explicit LineReader(Input& input, std::function<void()> beforeRead = {},
        std::uint64_t most = std::numeric_limits<std::uint64_t>::max());

    // Whether there is one more line. Throws Failure (bad usage) when the input is too large, or a line has no end.
    bool next();
    std::uint64_t number() const { return number_; }
    std::string_view text() const { return line_; }  // without the line's end, which may be "\r\n"
    bool isTooLong() const { return isTooLong_; }    // text() is its beginning; the rest is passed over
    bool isBlank() const;  // nothing but blanks and tabs, or a comment: a "#" is its first byte
    std::uint64_t bytesRead() const { return bytesRead_; }
    Nature const& nature() const { return nature_; }
    std::string place(std::size_t offset) const;  // "FILE:LINE:COLUMN", which count from 1; columns are bytes

private:
    bool fill();      // whether there are unread bytes in the buffer
    void skipLine();  // the rest of it
    std::string_view unread() const { return std::string_view(buffer_).substr(at_, filled_ - at_); }

    Input& input_;
    std::function<void()> beforeRead_;
    std::uint64_t most_;
    Nature nature_;
    std::string buffer_;
    std::size_t at_ = 0, filled_ = 0;  // of the buffer
    std::string line_;
    bool isTooLong_ = false, ended_ = false;
    std::uint64_t number_ = 0, bytesRead_ = 0;
};

}  // namespace Tool
