#pragma once

namespace Tool {

// Opens those of standard input, output and error that the parent process has closed, so that no file or socket gets
// their descriptor numbers. Must be called first. They are opened as /dev/null in the wrong direction, so that reading
// the input and writing the output fail, as they do on closed descriptors.
void openStandardFiles();

bool wasOutputClosed();

}  // namespace Tool
