#include "Mox/internal/CellFacts.h"

#include "Vel/base/Exception.h"
#include "Vel/base/System.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include <fcntl.h>

namespace Cell {

// --- files ---

File::File(char const* path, Source* from)
    : path_(path), file_(Vel::System::calls().open(path, O_RDONLY)), error_(errno), from_(from) {
    if (!from_) return;
    place_ = from_->asked.size();
    from_->asked.push_back({.name = path, .found = isOpen(), .error = isOpen() ? 0 : error_});
}

File::~File() {
    if (isOpen()) Vel::System::calls().close(file_);
}

File::Text File::read() const {
    Text text;
    ssize_t size = 0;
    do size = Vel::System::calls().read(file_, text.bytes, maxText);
    while (size < 0 && errno == EINTR);
    int const error = errno;
    if (from_ && size < 0) from_->asked[place_].error = error;
    if (size < 0) throw Vel::ErrnoException(error, path_);
    text.size = static_cast<std::size_t>(size);
    text.bytes[text.size] = '\0';
    if (from_) from_->asked[place_].text.emplace(text.bytes, text.size);
    return text;
}

// --- the order: a variable, a file, a default ---

char const* variable(char const* name, Source* from) {
    char const* const value = Vel::System::calls().getenv(name);
    if (!from) return value;
    from->kind = value ? Source::Kind::variable : Source::Kind::builtIn;
    from->asked.assign(1, {.isVariable = true, .name = name, .found = value != nullptr});
    if (value) from->asked[0].text = value;
    return value;
}

namespace {

// Returns the text of a file, or nothing if the file does not exist. Throws Vel::ErrnoException.
std::optional<File::Text> fileText(char const* path, Source* from) {
    File const file(path, from);
    bool const isMissing = !file.isOpen() && file.openError() == ENOENT;
    if (from && !isMissing) from->kind = Source::Kind::file;
    if (file.isOpen()) return file.read();
    if (isMissing) return std::nullopt;
    throw Vel::ErrnoException(file.openError(), path);
}

// Parses a number from 0 to 65535 by strtol() with base 0. Returns nothing if there is another number or more text.
std::optional<unsigned> cellIdFrom(char const* text, std::size_t size) {
    char* end = nullptr;
    auto const value = static_cast<unsigned long>(std::strtol(text, &end, 0));
    if (end == text || end != text + size || value > CellId::max()) return std::nullopt;
    return static_cast<unsigned>(value);
}

constexpr unsigned defaultCellId = 42;  // means that nothing was configured; no real slot has this number

Vel::String textFact(char const* name, char const* path, Source* from) {
    if (char const* const value = variable(name, from)) return value;
    auto const text = fileText(path, from);
    return text ? Vel::String(text->untilNul()) : Vel::String("generic");
}

bool flagFrom(std::string_view text, char const* source) {
    if (text != "TRUE" && text != "FALSE") throw Vel::ErrnoException(EINVAL, source);
    return text != "FALSE";
}

bool flagFact(char const* name, char const* path, Source* from) {
    if (char const* const value = variable(name, from)) return flagFrom(value, name);
    auto const text = fileText(path, from);
    return text && flagFrom(text->untilNul(), path);
}

}  // namespace

unsigned Cell_cellId(Source* from) {
    if (char const* const text = variable("CELLID", from)) {
        if (auto const id = cellIdFrom(text, std::strlen(text))) return *id;
        Vel::throwRangeException("CELLID did not contain a valid cell id");
    }
    auto const text = fileText("/etc/cellid", from);
    if (!text) return defaultCellId;
    if (auto const id = cellIdFrom(text->bytes, text->size)) return *id;
    Vel::throwRangeException("/etc/cellid did not contain a valid cell id");
}

Vel::String Cell_cellType(Source* from) { return textFact("CELLTYPE", "/etc/celltype", from); }
Vel::String Cell_product(Source* from) { return textFact("PRODUCT", "/etc/product", from); }

bool Cell_electionMgrSupported(Source* from) {
    return flagFact("ELECTIONMGRSUPPORTED", "/etc/electionMgrSupported", from);
}
bool Cell_cpuBmcMode(Source* from) { return flagFact("CPUBMCMODE", "/etc/cpuBmcMode", from); }

}  // namespace Cell
