#pragma once

namespace Tool {

// Opens standard input, output and error where whoever started the process has closed them, so that no file or socket
// becomes one of them by its number. To be called first. They lead to /dev/null, opened so that reading the input and
// writing the output fail, as they do when they are closed.
void openStandardFiles();

bool wasOutputClosed();

}  // namespace Tool
