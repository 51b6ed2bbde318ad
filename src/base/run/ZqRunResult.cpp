#include "ZqRunResult.h"

#include "SxException.h"
#include "SxFSAction.h"
#include "ZqLog.h"

using SxParserKit::SxSymbol;

SxSymbol ZqRunResult::downloadToJson() const {
    SxSymbol root;
    root.setType(SxParserAst::Object);
    root.append("complete", isComplete);
    root.append("sizeZqf", info.imageSize);
    appendTransfer(&root);
    return root;
}

void ZqRunResult::attempt(const std::function<void()>& write_) {
    try {
        write_();
    } catch (const SxException& e) {
        unwritten = e.toString(SxException::ShowMessage, ": ");
        zqLogMsg("base", "ZqRun: " + unwritten);
    }
}

void ZqRunResult::rewriteRecord() {
    if (unwritten.isEmpty()) attempt([&] { rewrite(); });
}

void ZqRunResult::writeFiles(const SxString& folder) {
    // A folder that was removed would come back.
    if (!SxFSAction::exists(folder)) return;
    attempt([&] { write(folder); });
    if (wasStarted) attempt([&] { info.write(folder); });
}
