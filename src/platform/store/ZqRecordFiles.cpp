#include "ZqRecordFiles.h"

#include "SxException.h"
#include "ZqRecordParser.h"

#include <algorithm>

namespace {

constexpr std::string_view BYTE_ORDER_MARK = "\xEF\xBB\xBF";
constexpr std::string_view BLANKS = " \t\r\n";

std::string_view trimmed(std::string_view text) {
    const size_t first = text.find_first_not_of(BLANKS);
    if (first == std::string_view::npos) return {};
    return text.substr(first, text.find_last_not_of(BLANKS) - first + 1);
}

bool isOfLines(const SxString& path) {
    return path.endsWith(".jsonl") || path.endsWith(".ndjson");
}

} // namespace

// A piece.

ZqRecordBatch::Record ZqRecordBatch::whole() const {
    return {std::string_view(buffer).substr(begin, end - begin), 0};
}

bool ZqRecordBatch::looksLikeLines() const {
    const std::string_view all = trimmed(whole().text);
    const size_t first = all.find('\n');
    if (first == std::string_view::npos) return false;
    return trimmed(all.substr(0, first)).ends_with('}') || all.find("\n{") != std::string_view::npos;
}

bool ZqRecordBatch::nextLine(Record* record) {
    const std::string_view all = std::string_view(buffer).substr(0, end);
    while (begin < end) {
        const size_t stop = std::min(all.find('\n', begin), end);
        const std::string_view text = trimmed(all.substr(begin, stop - begin));
        begin = stop + 1;
        *record = {text, line++};
        if (!text.empty()) return true;
    }
    return false;
}

// The files.

uint64 ZqRecordFiles::getNRead() const {
    SxMutexBlock lock(&mutex);
    return nRead;
}

bool ZqRecordFiles::next(ZqRecordBatch* batch) {
    SxMutexBlock lock(&mutex);
    // The parser needs room after the last record, whatever lies there.
    batch->buffer.resize(BATCH + ZqRecordParser::PADDING);
    batch->fault = {};
    batch->isWhole = false;
    batch->begin = batch->end = 0;
    while (batch->begin == batch->end && batch->fault.text.isEmpty() && !batch->isWhole) {
        try {
            if (file.isOpen()) {
                batch->file = nOpened - 1;
                fill(batch);
            } else if (nOpened < paths.size()) {
                batch->file = nOpened++;
                openNext(batch);
            } else {
                return false;
            }
        } catch (const SxException& e) {
            file = SxFileIO();
            batch->begin = batch->end = 0;
            batch->fault = {batch->file, 0, SxString("it can't be read: ") + e.what()};
        }
    }
    return true;
}

void ZqRecordFiles::openNext(ZqRecordBatch* batch) {
    const SxString& path = paths[batch->file];
    rest.clear();
    isSkipping = false;
    line = 1;
    file.open(path, "rb");
    file.adviseSequential();
    constexpr auto MOST = static_cast<int64>(ZqRecordParser::MAX_RECORD);
    if (file.getSize() > MOST || isOfLines(path)) return;
    // One more, since the file may grow.
    const int64 n = file.readBuffer(batch->buffer.data(), MOST + 1);
    nRead += static_cast<uint64>(n);
    if (n > MOST) {
        rest.assign(batch->buffer, 0, static_cast<size_t>(n));
        return;
    }
    file.close();
    batch->isWhole = true;
    cut(batch, static_cast<size_t>(n));
}

/// The piece is what lies in front of `n` bytes of its buffer.
void ZqRecordFiles::cut(ZqRecordBatch* batch, size_t n) {
    batch->begin = 0;
    batch->end = n;
    batch->line = line;
    const std::string_view text(batch->buffer.data(), n);
    if (line == 1 && text.starts_with(BYTE_ORDER_MARK)) batch->begin = BYTE_ORDER_MARK.size();
    // Lines are long, so that this is much faster than to count.
    for (size_t at = text.find('\n'); at != std::string_view::npos; at = text.find('\n', at + 1))
        ++line;
}

void ZqRecordFiles::fill(ZqRecordBatch* batch) {
    char* const bytes = batch->buffer.data();
    size_t n = rest.size();
    std::copy(rest.begin(), rest.end(), bytes);
    rest.clear();
    const auto room = static_cast<int64>(BATCH - n);
    const int64 nNew = file.readBuffer(bytes + n, room);
    nRead += static_cast<uint64>(nNew);
    n += static_cast<size_t>(nNew);
    const bool isLast = nNew < room;
    if (isLast) file.close();
    std::string_view text(bytes, n);
    if (isSkipping) {
        const size_t stop = text.find('\n');
        if (stop == std::string_view::npos) return;
        isSkipping = false;
        ++line;
        rest.assign(text.substr(stop + 1));
        if (!isLast) return;
        n = rest.size();
        std::copy(rest.begin(), rest.end(), bytes);
        rest.clear();
        return cut(batch, n);
    }
    if (isLast) return cut(batch, n);
    const size_t stop = text.rfind('\n');
    if (stop == std::string_view::npos) {
        isSkipping = true;
        batch->fault = {batch->file, line, "it is larger than a record can be"};
        return;
    }
    rest.assign(text.substr(stop + 1));
    cut(batch, stop + 1);
}
