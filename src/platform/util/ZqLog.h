#pragma once

#include "SxString.h"

#include <functional>

/// Writes one line to the log: local time with milliseconds, tag, thread, text. A line feed at the end of the
/// text is dropped, other control characters are written as escapes, so that no text can look like a second
/// line. Never raises: where the log can't be written, the message is dropped. Safe from any thread.
void zqLogMsg(const SxString& tag, const SxString& text);

/// Where the log goes. Unless a client says otherwise, to `$XDG_STATE_HOME/tavrin/log/tavrin.log`
/// (`~/.local/state` where the variable isn't set), opened by the first message and rotated at 5 MiB, with
/// three older files kept. Safe from any thread.
class ZqLog {
public:
    /// Gets each message instead of the file, with its text made harmless; called on the thread that logs.
    using Sink = std::function<void(const SxString& tag, const SxString& text)>;

    /// Whether each line goes to standard error too.
    static void setVerbose(bool verbose);
    /// Puts `sink` in the place of the file; an empty one brings the file back.
    static void setSink(Sink sink);
    /// Another log file (a host path) from the next message on; an empty path for the default.
    static void setFile(const SxString& path);
    /// The log file; empty where the user has no home folder.
    static SxString getFile();
};
