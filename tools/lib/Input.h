#pragma once

#include "tools/lib/Complaints.h"
#include "tools/lib/Output.h"

#include <cstdint>
#include <functional>
#include <limits>
#include <optional>
#include <string>
#include <string_view>

// Reads the input files of the command line, once and in order, in bounded memory. A file may have no end, for example
// a device. So there is a limit to the bytes of a file that are kept, and to the bytes of a line that are skipped.
namespace Tool {

// A file, or standard input. Throws Failure (bad usage) if it cannot be opened or read.
class Input {
public:
    explicit Input(std::string const& path);  // "-" means standard input
    Input(Input const&) = delete;
    Input& operator=(Input const&) = delete;
    ~Input();

    std::string const& name() const { return name_; }  // for messages
    int descriptor() const { return file_; }
    std::size_t read(char* to, std::size_t size);  // returns the number of bytes; 0 at the end

    static constexpr std::size_t largest = 256u << 20;           // most bytes of a file that is kept in memory
    std::optional<std::string> all(std::size_t most = largest);  // nothing if there are more than `most` bytes
    std::string tooLarge(std::uint64_t most) const;              // "NAME holds more than 256 MiB"

private:
    std::string name_;
    int file_;
};

class LineReader {
public:
    static constexpr std::size_t longest = 1u << 20;         // most bytes of a line that are kept
    static constexpr std::size_t longestPassed = 64u << 20;  // most bytes that are skipped to find a line's end

    // beforeRead: called before each read, which may block. most: the largest size of the input in bytes.
    explicit LineReader(Input& input, std::function<void()> beforeRead = {},
        std::uint64_t most = std::numeric_limits<std::uint64_t>::max());

    // Reads the next line. Returns false if there is none. Throws Failure (bad usage) if the input is too large, or if
    // a line has no end.
    bool next();
    std::uint64_t number() const { return number_; }
    std::string_view text() const { return line_; }  // without the line's end, which may be "\r\n"
    bool isTooLong() const { return isTooLong_; }    // then text() is its beginning, and the rest is skipped
    bool isBlank() const;  // whether it has only blanks and tabs, or is a comment, whose first byte is "#"
    std::uint64_t bytesRead() const { return bytesRead_; }
    Nature const& nature() const { return nature_; }
    std::string place(std::size_t offset) const;  // "FILE:LINE:COLUMN", both counted from 1; a column is a byte

private:
    bool fill();      // reads if the buffer has no unread bytes; returns false at the end
    void skipLine();  // skips the rest of the line
    std::string_view unread() const { return std::string_view(buffer_).substr(at_, filled_ - at_); }

    Input& input_;
    std::function<void()> beforeRead_;
    std::uint64_t most_;
    Nature nature_;
    std::string buffer_;
    std::size_t at_ = 0, filled_ = 0;  // the unread bytes of the buffer are [at_, filled_)
    std::string line_;
    bool isTooLong_ = false, ended_ = false;
    std::uint64_t number_ = 0, bytesRead_ = 0;
};

}  // namespace Tool
