#include "ZqReferenceImage.h"

#include "SxException.h"
#include "SxFSAction.h"
#include "ZqBlockPrint.h"
#include "ZqImageFiles.h"

namespace {

constexpr const char* UNIT = "src/base/ZqUnderflowMgr";

} // namespace

void ZqReferenceImage::open(const SxString& path) {
    const SxString name = path + "/" + ZqImageFiles::REFERENCE;
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
