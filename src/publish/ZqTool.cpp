#include "ZqTool.h"

#include "SxException.h"
#include "SxFileIO.h"
#include "SxOs.h"
#include "SxProcess.h"
#include "SxTime.h"
#include "ZqTaskMon.h"

#include <algorithm>
#include <cstdlib>

namespace {

constexpr const char* UNIT = "src/publish/ZqTool";
constexpr int64 LOOK_MS = 200;
constexpr size_t LOG_TAIL = 400; ///< bytes of the tool's own words in a failure

bool isProgram(const SxString& path) {
    SxStat info;
    return SxOs::get().stat(SxOs::hostPath(path), &info) == 0 && info.kind == SxStat::File &&
           (info.permissions & 0111);
}

/// The end of what a tool said, in one line.
SxString lastWords(const SxString& log) {
    std::string text;
    try {
        text = SxFileIO::readUtf8(log).str();
    } catch (const SxException&) {
        return "it left no message";
    }
    std::replace(text.begin(), text.end(), '\n', ' ');
    while (text.ends_with(' '))
        text.pop_back();
    if (text.empty()) return "it left no message";
    if (text.size() > LOG_TAIL) text = "..." + text.substr(text.size() - LOG_TAIL);
    return SxString(text).validUtf8();
}

} // namespace

ZqTool::ZqTool(const SxString& name_, const SxString& package) : name(name_) {
    const char* folders = std::getenv("PATH");
    const SxString all = SxString(folders ? folders : "/usr/bin:/bin") + ":/usr/sbin:/sbin:/usr/local/sbin";
    for (const SxString& folder : all.tokenize(':')) {
        path = folder + "/" + name;
        if (isProgram(path)) return;
    }
    throw SxException("The program '" + name + "' isn't installed; it is in the package " + package, UNIT,
                      __LINE__);
}

void ZqTool::run(const SxList<SxString>& arguments, const SxList<SxString>& variables, const SxString& log,
                 const ZqTaskMon& job, const std::function<void()>& look) const {
    SxList<SxString> words = {"-c", "exec env \"$@\" 2>\"$0\"", log, "LC_ALL=C", "TZ=UTC"};
    for (const SxString& variable : variables)
        words << variable;
    words << path;
    for (const SxString& argument : arguments)
        words << argument;
    SxProcess process("/bin/sh", words, SxProcess::Silent);
    process.start();
    while (!SxWait::pass(LOOK_MS, [&] { return !process.isRunning() || job.stopRequested(); }))
        look();
    if (job.stopRequested()) process.kill();
    const int code = process.wait();
    if (job.stopRequested()) throw SxException(SxException::STOPPED, "Stopped", UNIT, __LINE__);
    if (code == 0) return;
    throw SxException(SxException(lastWords(log), UNIT, __LINE__),
                      "'" + name + "' failed with exit code " + code, UNIT, __LINE__);
}
