#include "ZqRunResult.h"

#include "SxException.h"
#include "SxFSAction.h"
#include "ZqLog.h"

using SxParserKit::SxSymbol;

SxSymbol ZqRunResult::toJson() const {
    SxSymbol root = info.toJson();
    if (!isExitKnown) root.getElem("exitCode").setType(SxParserAst::Null);
    root.append("startMs", startMs);
    if (firstFrameMs >= 0) root.append("firstFrameMs", firstFrameMs);
    if (lastWaitMs >= 0) root.append("lastWaitMs", lastWaitMs);
    root.append("traceFolder", traceFolder);
    root.append("driveFailure", driveFailure);
    if (!lostLetter.isEmpty()) root.append("lostLetter", lostLetter);
    root.append("bytesOnDemand", link.nOnDemandBytes);
    appendTransfer(&root);
    return root;
}

SxSymbol ZqRunResult::downloadToJson() const {
    SxSymbol root;
    root.setType(SxParserAst::Object);
    root.append("complete", isComplete);
    root.append("sizeZqf", info.imageSize);
    appendTransfer(&root);
    return root;
}

void ZqRunResult::write(const SxString& folder) {
    // A folder that was removed would come back.
    if (!wasStarted || !SxFSAction::exists(folder)) return;
    try {
        info.write(folder);
    } catch (const SxException& e) {
        unwritten = e.toString(SxException::ShowMessage, ": ");
        zqLogMsg("base", "ZqRun: " + unwritten);
    }
}

void ZqRunResult::appendTransfer(SxSymbol* root) const {
    root->append("bytesReceived", link.nBytes);
    root->append("bytesTwice", image.nTwice);
    root->append("requests", link.nRequests);
    root->append("retries", link.nRetries);
    root->append("packed", image.isPacked);
    root->append("missingBytes", nMissing);
}
