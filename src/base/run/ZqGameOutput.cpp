#include "ZqGameOutput.h"

#include "SxException.h"
#include "SxFSAction.h"
#include "SxFileIO.h"
#include "SxOs.h"
#include "ZqImageFiles.h"
#include "ZqImageFolder.h"
#include "ZqLog.h"
#include "ZqRunFiles.h"

#include <algorithm>
#include <string_view>
#include <vector>

namespace {

constexpr const char* UNIT = "src/base/ZqGameOutput";
constexpr int64 PART = ZqGameOutput::PART;
/// What may come after the first part before something is given back, so that this isn't done for each line.
constexpr int64 SLACK = 1 << 20;
constexpr int64 PIECE = 64 << 10;
constexpr size_t N_LINES = 10, LINE_BYTES = 500;

void logFailure(const SxException& e) {
    zqLogMsg("base", "ZqGameOutput: " + e.toString(SxException::ShowMessage, ": "));
}

constexpr std::string_view OMISSION = "[tavrin: ", OMISSION_END = " bytes are left out here]\n";

std::string omission(int64 n) {
    return std::string(OMISSION) + SxString(n).str() + std::string(OMISSION_END);
}

/// As many of the `n` bytes at `offset` as are there.
std::string readAt(int fd, int64 offset, int64 n) {
    std::string bytes(static_cast<size_t>(n), '\0');
    int64 nRead = 0;
    while (nRead < n) {
        const int64 result = SxOs::get().readAt(fd, bytes.data() + nRead, n - nRead, offset + nRead);
        if (result <= 0) break;
        nRead += result;
    }
    bytes.resize(static_cast<size_t>(nRead));
    return bytes;
}

/// A line of at most LINE_BYTES, which isn't cut in the middle of a character.
std::string shortened(const std::string& line) {
    size_t n = LINE_BYTES;
    if (line.size() <= n) return line;
    while (n > LINE_BYTES - 4 && (static_cast<unsigned char>(line[n]) & 0xc0) == 0x80)
        --n;
    return line.substr(0, n) + " ...";
}

std::string lastOf(std::string bytes, int64 n) {
    bytes.erase(0, bytes.size() - std::min(bytes.size(), static_cast<size_t>(n)));
    return bytes;
}

/// The last bytes of a file, in front of which `tail` comes where it has less of them after its first part.
std::string lastBytes(int fd, int64 size, const std::string& tail, int64 n) {
    const int64 begin = tail.empty() ? 0 : std::min(size, PART);
    const int64 nFile = std::min(size - begin, n);
    return lastOf(tail + readAt(fd, size - nFile, nFile), n);
}

/// What stands after the first part of a text that assemble() has made.
struct Omission {
    int64 nOut = 0;   ///< bytes that are left out; 0 where there is no such line
    int64 nBytes = 0; ///< of the line, with the line feed in front of it, if one was added
};

Omission findOmission(int fd) {
    constexpr int64 LONGEST = 80;
    constexpr size_t N_DIGITS = 15;
    const std::string text = readAt(fd, PART, LONGEST);
    const size_t begin = text.starts_with('\n') ? 1 : 0;
    const size_t end = text.find(OMISSION_END);
    const size_t digits = begin + OMISSION.size();
    if (text.find(OMISSION) != begin || end == std::string::npos || end <= digits) return {};
    const std::string number = text.substr(digits, end - digits);
    if (number.size() > N_DIGITS || number.find_first_not_of("0123456789") != std::string::npos) return {};
    return {std::stoll(number), static_cast<int64>(end + OMISSION_END.size())};
}

/// Makes the file a plain text: its first part, how much is left out, and its last part. `nCut` bytes were
/// cut away already, of which `tail` came last. One that is such a text stays as it is, and counts as all
/// that it was made of where more has come since.
void assemble(const SxString& file, const std::string& tail, int64 nCut) {
    SxFileIO old(file, "rb");
    const int64 size = old.getSize();
    const Omission former = tail.empty() ? findOmission(old.getFd()) : Omission{};
    const int64 nOut = size + nCut + former.nOut - former.nBytes - 2 * PART;
    if (nOut <= 0 || nOut == former.nOut) return;
    SxFileIO::writeAtomic(
        file,
        [&](SxFileIO* text) {
            std::string first = readAt(old.getFd(), 0, PART);
            if (first.empty() || first.back() != '\n') first += '\n';
            text->write(SxString(first + omission(nOut)));
            text->write(SxString(lastBytes(old.getFd(), size, tail, PART)));
        },
        0600);
}

} // namespace

ZqGameOutput::ZqGameOutput(SxString image_, bool isRead_) : image(std::move(image_)), isRead(isRead_) {
}

ZqGameOutput::~ZqGameOutput() {
    close();
    if (fd >= 0) SxOs::get().close(fd);
}

void ZqGameOutput::close() {
    if (appFd >= 0) SxOs::get().close(appFd);
    appFd = -1;
}

void ZqGameOutput::begin(int64 timeMs) {
    try {
        make(timeMs);
    } catch (const SxException& e) {
        zqLogMsg("base", "ZqGameOutput: what the application says goes nowhere: " +
                             e.toString(SxException::ShowMessage, ": "));
        file = SxString();
    }
    if (appFd < 0) appFd = SxOs::get().open("/dev/null", SxOs::Write, 0);
}

void ZqGameOutput::make(int64 timeMs) {
    const ZqRunFiles files(image, ZqRunFiles::Log);
    ZqImageFolder::requireNoLink(image, ZqImageFiles::RUNS);
    SxFSAction::mkdir_p(files.getFolder(), 0777);
    // A program that can't write what it says may end for that, so it isn't given the last of a disk.
    ZqImageFolder::requireSpace(files.getFolder(), static_cast<uint64>(2 * PART + SLACK));
    file = files.next(timeMs);
    constexpr unsigned NEW = SxOs::Create | SxOs::Exclusive | SxOs::NoFollow;
    appFd = SxOs::get().open(SxOs::hostPath(file), SxOs::Write | SxOs::Append | NEW, 0600);
    if (appFd < 0) {
        throw SxException(SxException(SxOs::errorText(appFd), UNIT, __LINE__), SxFileIO::fileWriteErr(file),
                          UNIT, __LINE__);
    }
    open();
}

void ZqGameOutput::tidy() const {
    const ZqRunFiles files(image, ZqRunFiles::Log);
    // One too many, or a long one, is no harm.
    for (const SxException& e : files.removeOld(KEPT))
        logFailure(e);
    try {
        for (const SxString& name : files.list()) {
            const SxString former = files.getFolder() + name;
            if (former == file || SxOs::get().isOpen(SxOs::hostPath(former)) == 1) continue;
            try {
                assemble(former, "", 0);
            } catch (const SxException& e) {
                logFailure(e);
            }
        }
    } catch (const SxException& e) {
        logFailure(e);
    }
}

void ZqGameOutput::open() {
    constexpr unsigned BOTH = SxOs::Read | SxOs::Write | SxOs::NoFollow;
    fd = SxOs::get().open(SxOs::hostPath(file), BOTH, 0);
    if (fd >= 0) return;
    close();
    throw SxException(SxException(SxOs::errorText(fd), UNIT, __LINE__), SxFileIO::fileReadErr(file), UNIT,
                      __LINE__);
}

void ZqGameOutput::adopt() {
    try {
        ZqImageFolder::requireNoLink(image, ZqImageFiles::RUNS);
        const ZqRunFiles files(image, ZqRunFiles::Log);
        const std::vector<SxString> names = files.list();
        if (names.empty()) return;
        file = files.getFolder() + names.back();
        // The application may have none, and then that is a former one's.
        if (SxOs::get().isOpen(SxOs::hostPath(file)) == 0) {
            file = SxString();
            return;
        }
        open();
        State now;
        now.readEnd = SxFSAction::sizeOf(file);
        setState(now);
    } catch (const SxException& e) {
        logFailure(e);
        file = SxString();
    }
}

ZqGameOutput::State ZqGameOutput::getState() const {
    SxMutexBlock lock(&mutex);
    return state;
}

void ZqGameOutput::setState(const State& newState) {
    SxMutexBlock lock(&mutex);
    state = newState;
}

/// The reader goes on meanwhile.
void ZqGameOutput::setGone(int64 end, int64 nCut) {
    SxMutexBlock lock(&mutex);
    state.goneEnd = end;
    state.nCut = nCut;
}

void ZqGameOutput::trim() {
    SxStat info;
    if (fd < 0 || SxOs::get().statFd(fd, &info) < 0 || info.size == lastSize) return;
    State now = getState();
    if (info.size < lastSize) {
        // The application has emptied it itself, as a script does that writes to /dev/stderr by its name.
        now = {};
        tail.clear();
        setState(now);
    }
    lastSize = info.size;
    const int64 nSaid = info.size + now.nCut;
    if (nSaid - now.goneEnd <= PART + SLACK) return;
    const int64 begin = now.goneEnd;
    now.goneEnd = nSaid - PART;
    if (isRead) now.goneEnd = std::min(now.goneEnd, std::max(now.readEnd, nSaid - MOST_UNREAD));
    if (now.goneEnd <= begin) return;
    if (canPunch) {
        // Told before, so that a reader doesn't take for the application's what reads as zeros.
        setGone(now.goneEnd, now.nCut);
        const int result = SxOs::get().punchHole(fd, begin, now.goneEnd - begin);
        canPunch = result >= 0;
        if (canPunch) return;
        zqLogMsg("base", "ZqGameOutput: the middle of '" + file +
                             "' can't be given back, and is cut away: " + SxOs::errorText(result));
    }
    cut(now.nCut, info.size);
}

/// Where the file system has no holes: what comes last is kept here, since the application goes on writing at
/// the file's end.
void ZqGameOutput::cut(int64 nCut, int64 size) {
    tail = lastBytes(fd, size, tail, PART);
    const int64 end = size + nCut;
    setGone(end, nCut);
    if (SxOs::get().truncate(fd, PART) < 0) return;
    setGone(end, end - PART);
    lastSize = PART;
}

void ZqGameOutput::end() {
    close();
    if (file.isEmpty()) return;
    try {
        assemble(file, tail, getState().nCut);
    } catch (const SxException& e) {
        logFailure(e);
    }
}

SxList<SxString> ZqGameOutput::getLastLines() const {
    SxList<SxString> lines;
    SxStat info;
    if (fd < 0 || SxOs::get().statFd(fd, &info) < 0) return lines;
    const int64 nSaid = info.size + getState().nCut;
    std::string text = lastBytes(fd, info.size, tail, PIECE);
    // A line whose begin isn't there is shown only where there is no other.
    const size_t firstEnd = text.find('\n');
    if (nSaid > PIECE && firstEnd < text.size() - 1) text.erase(0, firstEnd + 1);
    for (size_t end = text.size(); end > 0 && static_cast<size_t>(lines.getSize()) < N_LINES;) {
        size_t begin = text.rfind('\n', end - 1);
        begin = begin == std::string::npos ? 0 : begin + 1;
        std::string line = text.substr(begin, end - begin);
        end = begin == 0 ? 0 : begin - 1;
        while (!line.empty() && (line.back() == '\r' || line.back() == '\n'))
            line.pop_back();
        if (line.empty() && lines.isEmpty()) continue;
        lines.prepend(SxString(shortened(line)));
    }
    return lines;
}

std::string ZqGameOutput::readNext() {
    while (fd >= 0) {
        const State before = getState();
        const int64 at = before.readEnd;
        const bool isGone = at >= PART && at < before.goneEnd;
        std::string bytes;
        if (isGone) {
            bytes = "\n" + omission(before.goneEnd - at);
        } else {
            bytes =
                readAt(fd, at < PART ? at : at - before.nCut, at < PART ? std::min(PIECE, PART - at) : PIECE);
        }
        SxMutexBlock lock(&mutex);
        // Otherwise it may have been taken away meanwhile.
        if (!(state == before)) continue;
        state.readEnd = isGone ? before.goneEnd : at + static_cast<int64>(bytes.size());
        return bytes;
    }
    return {};
}
