#include "ZqReferenceImage.h"

#include "SxException.h"
#include "SxFSAction.h"

namespace {

constexpr const char* UNIT = "src/base/ZqUnderflowMgr";

} // namespace

void ZqReferenceImage::open(const SxString& path) {
    const SxString name = path + "/imgRef.zqf";
    if (!SxFSAction::exists(name)) return;
    try {
        file.open(name, "rb", 0600);
    } catch (const SxException&) {
        zqLogMsg("base",
                 SxString("ZqCoreUnderflowMgr::main: Cannot open ") + name + ". Validation cancelled");
    }
}

SxArray<char> ZqReferenceImage::read(const ZqOnDemandPass& pass, uint64 offset, uint64 length) {
    SxArray<char> expected;
    if (!file.isOpen()) return expected;
    try {
        expected.resize(static_cast<int64>(length));
        file.seek(static_cast<int64>(offset));
        if (file.readBuffer(expected.data(), expected.getSize()) != expected.getSize()) {
            throw SxException(SxFileIO::fileReadErr(file.getFilePath()), UNIT, __LINE__);
        }
    } catch (const SxException& e) {
        zqLogMsg("base", e.toString(SxException::ShowMessage, "\n"));
        pass.log("Cannot read validation data. Validation cancelled");
        expected.removeAll();
    }
    return expected;
}

bool ZqReferenceImage::matches(const ZqOnDemandPass& pass, uint64 offset, const SxArray<char>& data,
                               const SxArray<char>& expected) {
    if (expected.getSize() == 0 || data == expected) return true;
    pass.log("On Demand Buffer does not pass data validation: Data corrupt");
    pass.log("ZqF byte index: " + SxString(offset));
    pass.log("Data fetched:");
    blockPrint(data);
    pass.log("Data expected:");
    blockPrint(expected);
    return false;
}

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
