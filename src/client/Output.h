#pragma once

#include <tavrin/SxException.h>
#include <tavrin/SxSymbol.h>

#include <string_view>

/// How the client speaks, by the options common to all verbs.
struct OutputMode {
    bool json = false;
    bool quiet = false;
    bool verbose = false;
};

/// What the client says: results on standard output, failures on standard error. A reader that closes the
/// pipe ends the output without a failure. Main thread only.
class Output {
public:
    explicit Output(const OutputMode& mode);

    const OutputMode& getMode() const { return mode; }

    /// A line for people; nothing with --json or --quiet.
    void text(const SxString& line);
    /// A line for people that --quiet doesn't take away, such as a fault that was found.
    void finding(const SxString& line);
    /// The result of a verb with --json.
    void object(const SxParserKit::SxSymbol& result);
    /// Bytes of a listing as they are, line feeds included; nothing with --quiet unless --json asks for them.
    void listing(std::string_view lines);
    /// Bytes as they are, whatever the mode.
    void raw(std::string_view bytes);
    /// Whether the reader has gone, so that further output is in vain.
    bool isClosed() const { return closed; }
    /// Hands everything to the system. Raises where it can't be written.
    void flush();

    /// Shows a failure on standard error: one line for each level, outermost first; `places` adds where each
    /// was raised.
    static void failure(const SxException& e, bool places);
    /// Shows one sentence on standard error.
    static void failure(const SxString& sentence);
    /// Bytes as they are, on standard error.
    static void error(std::string_view bytes);

private:
    void check(bool written);

    OutputMode mode;
    const bool isTerminal;
    bool closed = false;
};

/// Bytes in a readable unit, such as "1.5 GiB".
SxString readableBytes(double bytes);
/// Bytes exactly and in a readable unit, such as "1572864 bytes (1.5 MiB)".
SxString exactBytes(uint64 bytes);
