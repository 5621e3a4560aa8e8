#pragma once

#include "tools/lib/Output.h"

#include <nlohmann/json.hpp>

#include <cstdint>
#include <string>
#include <string_view>

// Prints answers of any length in bounded memory.
namespace Tool {

class Answers {
public:
    // enough: number of bytes at which add() prints what is kept.
    explicit Answers(std::size_t enough = 65536) : enough_(enough) {}
    void add(std::string_view text) {
        text_ += text;
        if (text_.size() >= enough_) flush();
    }
    void flush() {
        print(text_);
        text_.clear();
    }
    std::string const& kept() const { return text_; }  // the text that is not printed yet

private:
    std::string text_;
    std::size_t enough_;
};

// Prints a JSON object with one or more long lists, with one item on a line.
class JsonList {
public:
    JsonList(Answers& answers, std::string const& begin) : answers_(answers) { answers_.add("{" + begin + "["); }
    void add(Json const& item) {
        answers_.add(count_++ == 0 ? "\n  " : ",\n  ");
        answers_.add(jsonLine(item));
    }
    void next(std::string const& begin) {  // ends the list and begins another
        end();
        answers_.add(", " + begin + "[");
        count_ = 0;
    }
    void close(std::uint64_t bad) { closeWith(", \"bad\": " + std::to_string(bad)); }
    void closeWith(std::string const& rest) {
        end();
        answers_.add(rest + "}\n");
    }

private:
    void end() { answers_.add(count_ == 0 ? "]" : "\n]"); }

    Answers& answers_;
    std::size_t count_ = 0;
};

}  // namespace Tool
