#include "ZqBlockPrint.h"

#include "SxString.h"
#include "ZqLog.h"

#include <algorithm>

void blockPrint(const SxArray<char>& data) {
    constexpr int64 ROW = 16, MAX_ROWS = 256;
    const int64 end = std::min(data.getSize(), ROW * MAX_ROWS);
    for (int64 first = 0; first < end; first += ROW) {
        SxString line = SxString::sprintf("%08X", static_cast<unsigned>(first)), text;
        for (int64 i = first; i < std::min(end, first + ROW); ++i) {
            const auto byte = static_cast<unsigned char>(data(i));
            line += SxString::sprintf(i % 8 == 0 ? "  %02X" : " %02X", static_cast<unsigned>(byte));
            text += byte < 32 || byte >= 128 ? '.' : static_cast<char>(byte);
        }
        zqLogMsg("base", line + "   [ " + text + " ]");
    }
}
