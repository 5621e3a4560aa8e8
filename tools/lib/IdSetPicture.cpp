#include "tools/lib/IdSetPicture.h"

#include <algorithm>
#include <optional>

namespace Tool {

namespace {

using Mox::Id;
using Mox::IdSet;
using Vel::U16;

class Picture {
public:
    Picture(IdSet const& set, unsigned perRow) : set_(set), perRow_(perRow) {}

    std::string text() {
        for (unsigned begin = 0; begin < set_.size(); begin = end(begin)) {
            unsigned const members = count(begin);
            if (members == 0 || members == end(begin) - begin)
                addToRun(begin, members != 0);
            else {
                closeRun(begin);
                addRow(begin);
            }
        }
        closeRun(set_.size());
        return text_.empty() ? "no ids are below the size 0\n" : text_;
    }

private:
    unsigned end(unsigned begin) const { return std::min(begin + perRow_, unsigned(set_.size())); }
    bool has(unsigned id) const { return set_.id(Id(static_cast<U16>(id))); }
    unsigned count(unsigned begin) const {
        unsigned members = 0;
        for (unsigned id = begin; id < end(begin); ++id) members += has(id);
        return members;
    }

    void addToRun(unsigned begin, bool isFull) {
        if (runBegin_ && runIsFull_ != isFull) closeRun(begin);
        if (!runBegin_) runBegin_ = begin;
        runIsFull_ = isFull;
    }
    void closeRun(unsigned runEnd) {
        if (!runBegin_) return;
        addLabel(*runBegin_);
        text_ += "to " + std::to_string(runEnd - 1) + (runIsFull_ ? ": all\n" : ": none\n");
        runBegin_.reset();
    }
    void addLabel(unsigned id) {
        std::string const label = std::to_string(id);
        text_.append(5 - label.size(), ' ').append(label).append("  ");
    }
    void addRow(unsigned begin) {
        addLabel(begin);
        for (unsigned id = begin; id < end(begin); ++id) {
            if (id != begin && id % 8 == 0) text_ += ' ';
            text_ += has(id) ? "█" : "·";
        }
        text_ += '\n';
    }

    IdSet const& set_;
    unsigned perRow_;
    std::string text_;
    std::optional<unsigned> runBegin_;  // first of the current rows that are all empty, or all full
    bool runIsFull_ = false;
};

}  // namespace

std::string pictureOf(IdSet const& set, unsigned perRow) { return Picture(set, perRow).text(); }

}  // namespace Tool
