#include "ZqImagePlay.h"

#include "SxException.h"
#include "SxFSAction.h"
#include "SxProcessGroup.h"
#include "ZqAppParams.h"
#include "ZqImageFolder.h"
#include "ZqImageLock.h"
#include "ZqLog.h"
#include "ZqStreamRecord.h"

namespace {

SxString nameOf(const SxString& image) {
    try {
        const ZqAppParams app(ZqImageFolder::prefix(image));
        if (!app.name.isEmpty()) return app.name;
        const SxList<SxString> parts = app.cmd.tokenize('/');
        return parts.isEmpty() ? app.cmd : parts.last();
    } catch (const SxException& e) {
        // Its process says enough.
        zqLogMsg("base", SxString("ZqImagePlay: ") + e.what());
        return {};
    }
}

} // namespace

std::optional<ZqImagePlay> ZqImagePlay::find(const SxString& image) {
    if (!SxFSAction::test_d(image)) return {};
    ZqImagePlay play;
    const SxString holder = ZqImageLock::holderOf(image, ZqImageLock::Growth);
    if (holder.endsWith("(" + SxString(JOB) + ")")) play.run = holder;
    ZqStreamRecord record;
    record.read(image);
    const SxList<SxProcessInfo> members = SxProcessGroup::fromText(record.application).getRunning();
    if (!members.isEmpty()) play.process = SxProcessGroup::oldestOf(members).id;
    if (play.process < 0 && play.run.isEmpty()) return {};
    play.application = nameOf(image);
    return play;
}

SxString ZqImagePlay::describe() const {
    SxString text = "is played";
    if (!run.isEmpty()) text += " by " + run;
    if (process < 0) return text;
    text += ": its application '" + application.makeVisible() + "' runs (process " + process + ")";
    return run.isEmpty() ? text + ", though its run was killed" : text;
}
