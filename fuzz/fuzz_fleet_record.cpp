#include "ZqFleetColumns.h"
#include "ZqFleetLoad.h"

#include <cstdlib>
#include <cstring>

// A document of a fleet's runs: any bytes are read or told a fault. What was read is known by a key, holds no
// text that is too long and no number that is too small.
extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, size_t size) {
    // One for all, so that what one document leaves meets the next one.
    static ZqRecordParser parser(ZqFleetColumns::all(), ZqFleetColumns::keys());
    std::vector<char> bytes(size + ZqRecordParser::PADDING);
    if (size > 0) std::memcpy(bytes.data(), data, size);
    std::vector<ZqCell> cells;
    std::string keyRoom;
    const SxString fault = ZqFleetLoad::read(&parser, std::string_view(bytes.data(), size), &cells, &keyRoom);
    if (!fault.isEmpty()) return 0;
    const std::vector<ZqColumn>& columns = ZqFleetColumns::all();
    if (cells.size() != columns.size() || !cells[ZqFleetColumns::Key].isSet) std::abort();
    for (size_t i = 0; i < cells.size(); ++i) {
        const bool isKey = i == ZqFleetColumns::Key;
        if (!isKey && cells[i].text.size() > ZqRecordParser::MAX_TEXT) std::abort();
        if (columns[i].type == ZqColumn::Real && !(cells[i].real >= 0)) std::abort();
    }
    for (const ZqRecordKey& key : ZqFleetColumns::keys()) {
        const ZqCell& cell = cells[key.column];
        if (cell.isSet && columns[key.column].type == ZqColumn::Whole && cell.whole < key.least) std::abort();
    }
    return 0;
}
