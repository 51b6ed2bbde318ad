#include "Progress.h"
#include "Columns.h"

#include <tavrin/SxClock.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <string_view>
#include <sys/ioctl.h>
#include <unistd.h>

namespace {
constexpr int64 PLAIN_INTERVAL_NS = 2'000'000'000;
constexpr int64 MIN_BAR = 10, MAX_BAR = 40;
/// A line for a file or a pipe has at least so many columns; its numbers take at most so many.
constexpr int64 PLAIN_WIDTH = 79, NUMBERS_WIDTH = 68;
constexpr double SMOOTHING_SECONDS = 3;

bool isDrawable() {
    const char* term = std::getenv("TERM");
    return ::isatty(STDERR_FILENO) && term && std::string_view(term) != "dumb";
}

int64 terminalWidth() {
    winsize size = {};
    if (::ioctl(STDERR_FILENO, TIOCGWINSZ, &size) != 0 || size.ws_col == 0) return 80;
    return size.ws_col;
}

SxString formatEta(double seconds) {
    if (!(seconds < 360000)) return "> 99 h";
    const int64 s = std::llround(std::ceil(seconds));
    if (s >= 3600) return SxString::sprintf("%d:%02d:%02d", int(s / 3600), int(s / 60 % 60), int(s % 60));
    return SxString::sprintf("%d:%02d", int(s / 60), int(s % 60));
}

SxString formatBar(double fraction, int64 width) {
    const auto filled = static_cast<size_t>(fraction * static_cast<double>(width - 2));
    return "[" + std::string(filled, '#') + std::string(static_cast<size_t>(width - 2) - filled, '-') + "]";
}
} // namespace

Progress::Progress(const OutputMode& mode, const SxString& label_)
    : label(label_),
      style(mode.quiet                      ? Silent
            : isDrawable() && !mode.verbose ? Drawn // log lines would tear the drawn one
                                            : Plain),
      startNs(SxClock::get().steadyNs()),
      lastNs(startNs),
      lastLineNs(startNs) {
}

void Progress::update(uint64 nCurrent, uint64 nTotal) {
    const int64 nowNs = SxClock::get().steadyNs();
    if (!isPaced) {
        measureRate(nCurrent, nowNs);
        seconds = rate > 0 && nTotal > nCurrent ? static_cast<double>(nTotal - nCurrent) / rate : 0;
    }
    if (style == Drawn) {
        const SxString line = formatLine(label, nCurrent, nTotal, speedText(), seconds, terminalWidth() - 1);
        std::fputs(("\r" + line + "\x1b[K").ascii(), stderr);
        std::fflush(stderr);
        drawn = true;
    } else if (style == Plain && nowNs - lastLineNs >= PLAIN_INTERVAL_NS) {
        // A file or a pipe has no width, and what is cut there is lost.
        const int64 width = ::isatty(STDERR_FILENO) != 0
                                ? terminalWidth() - 1
                                : std::max(PLAIN_WIDTH, label.makeVisible().getSize() + NUMBERS_WIDTH);
        std::fputs((formatLine(label, nCurrent, nTotal, speedText(), seconds, width) + "\n").ascii(), stderr);
        lastLineNs = nowNs;
    }
}

void Progress::measureRate(uint64 nCurrent, int64 nowNs) {
    // A job that goes on where an earlier one ended doesn't begin at 0, one with several phases begins anew.
    if (!measured || nCurrent < lastCurrent) {
        measured = true;
        startNs = nowNs;
        rate = 0;
    } else if (nowNs > lastNs) {
        const double dt = static_cast<double>(nowNs - lastNs) * 1e-9;
        const double age = static_cast<double>(nowNs - startNs) * 1e-9;
        const double latest = static_cast<double>(nCurrent - lastCurrent) / dt;
        // In the first seconds the plain mean, then one that forgets.
        const double weight = std::max(dt / age, 1 - std::exp(-dt / SMOOTHING_SECONDS));
        rate += (latest - rate) * weight;
    }
    lastCurrent = nCurrent;
    lastNs = nowNs;
}

SxString Progress::speedText() const {
    if (!(rate > 0)) return {};
    return SxString::sprintf("%10s/s", readableBytes(rate).ascii()) + (isPacked ? " packed" : "");
}

void Progress::setPace(double rate_, double seconds_, bool packed) {
    isPaced = true;
    isPacked = packed;
    measured = false;
    rate = rate_;
    seconds = seconds_;
}

void Progress::finish() {
    if (!drawn) return;
    std::fputs("\r\x1b[K", stderr);
    std::fflush(stderr);
    drawn = false;
}

SxString Progress::formatLine(const SxString& label, uint64 nCurrent, uint64 nTotal, const SxString& rate,
                              double seconds, int64 width) {
    const double done = static_cast<double>(nCurrent), total = static_cast<double>(nTotal);
    const double fraction = nTotal > 0 ? std::min(done / total, 1.0) : 0;
    // Of even width, so that the bar stands still.
    SxString percent, amount, speed = rate, rest;
    if (nCurrent > 0 || nTotal > 0) amount = SxString::sprintf("%10s", readableBytes(done).ascii());
    if (nTotal > 0) {
        percent = SxString::sprintf("%3d %%", int(fraction * 100));
        amount += " of " + readableBytes(total);
    }
    if (seconds > 0) rest = SxString::sprintf("%5s left", formatEta(seconds).ascii());

    SxString line = shortenTo(label.makeVisible(), width);
    int64 left = width - columnsOf(line);
    for (SxString* part : {&percent, &rest, &amount, &speed}) {
        if (part->isEmpty()) continue;
        *part = "  " + *part;
        left -= columnsOf(*part);
        if (left < 0) *part = "";
    }
    line += percent;
    left -= 2;
    if (nTotal > 0 && left >= MIN_BAR) line += "  " + formatBar(fraction, std::min(left, MAX_BAR));
    return line + amount + speed + rest;
}
