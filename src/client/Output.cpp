#include "Output.h"

#include <tavrin/ZqReadable.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <unistd.h>

namespace {
constexpr const char* UNIT = "src/client/Output";
constexpr size_t BUFFER_SIZE = 64 << 10;
} // namespace

Output::Output(const OutputMode& mode_) : mode(mode_), isTerminal(::isatty(STDOUT_FILENO) == 1) {
    if (!isTerminal) std::setvbuf(stdout, nullptr, _IOFBF, BUFFER_SIZE);
}

void Output::text(const SxString& line) {
    if (!mode.quiet) finding(line);
}

void Output::finding(const SxString& line) {
    if (!mode.json) raw((line.makeVisible() + "\n").str());
}

void Output::object(const SxParserKit::SxSymbol& result) {
    if (mode.json) raw((result.toJson(2) + "\n").str());
}

void Output::listing(std::string_view lines) {
    if (mode.json || !mode.quiet) raw(lines);
}

void Output::raw(std::string_view bytes) {
    if (!closed) check(std::fwrite(bytes.data(), 1, bytes.size(), stdout) == bytes.size());
}

void Output::flush() {
    if (!closed) check(std::fflush(stdout) == 0);
}

void Output::check(bool written) {
    if (written) return;
    // A terminal whose window was closed fails by EIO; a file that does has a faulty disk.
    if (errno != EPIPE && !(errno == EIO && isTerminal)) {
        const SxException cause(std::strerror(errno), UNIT, __LINE__);
        throw SxException(cause, "Cannot write to standard output", UNIT, __LINE__);
    }
    closed = true;
}

void Output::error(std::string_view bytes) {
    // Nobody is left to be told where standard error itself fails.
    std::fwrite(bytes.data(), 1, bytes.size(), stderr);
    std::fflush(stderr);
}

void Output::failure(const SxException& e, bool places) {
    SxString text;
    for (const SxException* level = &e; level; level = level->getCause()) {
        text += level == &e ? "tavrin: " : "  ";
        text += level->getMessage().makeVisible();
        if (places) text += (" (" + level->getFile() + ":" + level->getLine() + ")");
        text += "\n";
    }
    error(text.str());
}

void Output::failure(const SxString& sentence) {
    error(("tavrin: " + sentence.makeVisible() + "\n").str());
}

SxString readableBytes(double bytes) {
    return ZqReadable::bytes(bytes);
}

SxString exactBytes(uint64 bytes) {
    SxString text = SxString(bytes) + " bytes";
    if (bytes >= 1000) text += " (" + readableBytes(static_cast<double>(bytes)) + ")";
    return text;
}
