#include "tools/lib/Progress.h"

#include <algorithm>
#include <cstdio>
#include <string>

#include <sys/stat.h>
#include <unistd.h>

namespace Tool {

namespace {

constexpr std::size_t barWidth = 30;

std::string bar(std::uint64_t done, std::uint64_t all) {
    std::string text(barWidth, ' ');
    std::fill_n(text.begin(), barWidth * done / all, '#');
    return "[" + text + "] " + std::to_string(100 * done / all) + " %, ";
}

}  // namespace

Progress::Progress(Input const& input, bool mayMixWithAnswers)
    : wanted_(::isatty(STDERR_FILENO) == 1 && ::isatty(input.descriptor()) == 0 &&
              !(mayMixWithAnswers && ::isatty(STDOUT_FILENO) == 1)),
      next_(Clock::now() + std::chrono::seconds(1)) {
    struct stat status {};
    if (::fstat(input.descriptor(), &status) == 0 && S_ISREG(status.st_mode))
        size_ = static_cast<std::uint64_t>(status.st_size);
}

void Progress::tell(LineReader const& lines) {
    if (!wanted_ || Clock::now() < next_) return;
    next_ = Clock::now() + std::chrono::milliseconds(250);
    std::string const part = size_ ? bar(lines.bytesRead(), std::max(size_, lines.bytesRead())) : "";
    std::fprintf(stderr, "\rmox: %s%lu lines", part.c_str(), lines.number());
    std::fflush(stderr);
    isShown_ = true;
}

void Progress::clear() {
    if (isShown_) std::fputs("\r\x1b[K", stderr);
    isShown_ = false;
}

}  // namespace Tool
