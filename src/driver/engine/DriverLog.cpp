#include "DriverLog.h"

#include "SxTime.h"

#include <unistd.h>

void driverLog(const SxString& text) {
    const std::string line = (SxTime::strftime("%Y-%m-%d %H:%M:%S ") + text.makeVisible() + "\n").str();
    // One call for each line, so that lines of several threads don't mix. There is nowhere to tell of a
    // failure.
    [[maybe_unused]] const ssize_t written = ::write(STDERR_FILENO, line.data(), line.size());
}
