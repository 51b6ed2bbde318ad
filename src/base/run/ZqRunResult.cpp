#include "ZqRunResult.h"

#include "SxException.h"
#include "SxFSAction.h"
#include "ZqLog.h"

#include <functional>

using SxParserKit::SxSymbol;

SxSymbol ZqRunResult::downloadToJson() const {
    SxSymbol root;
    root.setType(SxParserAst::Object);
    root.append("complete", isComplete);
    root.append("sizeZqf", info.imageSize);
    appendTransfer(&root);
    return root;
}

void ZqRunResult::writeFiles(const SxString& folder) {
    const auto attempt = [this](const std::function<void()>& write) {
        try {
            write();
        } catch (const SxException& e) {
            unwritten = e.toString(SxException::ShowMessage, ": ");
            zqLogMsg("base", "ZqRun: " + unwritten);
        }
    };
    // A folder that was removed would come back.
    if (!SxFSAction::exists(folder)) return;
    attempt([&] { write(folder); });
    if (wasStarted) attempt([&] { info.write(folder); });
}
