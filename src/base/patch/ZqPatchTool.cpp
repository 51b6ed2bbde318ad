#include "ZqPatchTool.h"

#include "SxException.h"
#include "ZqLog.h"
#include "ZqSilentProcess.h"

namespace {

constexpr const char* UNIT = "src/base/patch/ZqPatchTool";
/// Of a process that kill() has ended.
constexpr int KILLED = 137;

} // namespace

void ZqPatchTool::run(const SxString& program, const SxList<SxString>& arguments, const SxString& kind,
                      const SxString& owner) {
    const SxPtr<ZqSilentProcess> tool = prepare(program, arguments);
    // Without the lock, as is the wait: the program's file may be slow to come, and stop() must get in.
    tool->start({});
    const int code = tool->wait();
    if (code == 0) return;

    const SxString said = tool->getErrorText();
    if (!said.isEmpty()) zqLogMsg("base", owner + " : '" + program + "' says: " + said);
    SxString words;
    for (const SxString& argument : arguments)
        words += " " + argument;
    const SxException failure("Could not execute " + kind + " process " + program + " with args : " + words +
                                  " Exit code : " + SxString(code),
                              UNIT, __LINE__);
    throw code == KILLED && isStopped() ? failure.tagged(SxException::STOPPED) : failure;
}

SxPtr<ZqSilentProcess> ZqPatchTool::prepare(const SxString& program, const SxList<SxString>& arguments) {
    auto tool = SxPtr<ZqSilentProcess>::create(program, arguments);
    tool->setHiddenWindow(true);
    bool stopCame = false;
    {
        SxMutexBlock lock(&mutex);
        process = tool;
        stopCame = stopped;
    }
    // A stop that came while inputs were looked at had nothing to kill. Were it forgotten, the tool would run
    // to its end, for minutes, while the owner waits for the job that it has stopped. A process that is
    // killed before its start runs nothing, and counts as a killed one.
    if (stopCame) tool->kill();
    return tool;
}

bool ZqPatchTool::isStopped() {
    SxMutexBlock lock(&mutex);
    return stopped;
}

void ZqPatchTool::stop() {
    SxPtr<ZqSilentProcess> tool;
    {
        SxMutexBlock lock(&mutex);
        stopped = true;
        tool = process;
    }
    if (tool) tool->kill();
}
