#include "SxProcessGroup.h"

#include "SxException.h"
#include "SxOs.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <sstream>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>

namespace {

constexpr const char* UNIT = "src/core/SxProcessGroup";

/// Of the machine's start; a text without blanks.
SxString bootId() {
    const std::string id = SxOs::get().bootId();
    return id.empty() ? "-" : SxString(id);
}

} // namespace

SxProcessGroup::SxProcessGroup(int64 id_, uint64 startTime_)
    : id(id_),
      startTime(startTime_),
      boot(bootId()) {
}

SxProcessGroup SxProcessGroup::of(int64 processId) {
    SxProcessInfo info, first;
    if (!SxProcessInfo::get(processId, &info) || info.group <= 1) return {};
    return {info.group, SxProcessInfo::get(info.group, &first) ? first.startTime : info.startTime};
}

SxString SxProcessGroup::toText() const {
    return isValid() ? SxString(id) + " " + startTime + " " + boot : SxString();
}

SxProcessGroup SxProcessGroup::fromText(const SxString& text) {
    SxProcessGroup result;
    std::string boot;
    std::istringstream in(text.str());
    // The first process's and our own group aren't anybody's to be ended.
    if (!(in >> result.id >> result.startTime >> boot) || result.id <= 1) return {};
    result.boot = boot;
    return result;
}

/// Whether the id still is that of this group.
bool SxProcessGroup::isOriginal() const {
    if (!isValid() || !(boot == bootId())) return false;
    // The system gives no process the id of a group that has processes left. So whoever has the id now either
    // is the first process, or came after the group's end.
    SxProcessInfo first;
    return !SxProcessInfo::get(id, &first) || first.startTime == startTime;
}

SxList<SxProcessInfo> SxProcessGroup::getRunning() const {
    SxList<SxProcessInfo> running;
    if (!isOriginal()) return running;
    for (const SxProcessInfo& info : SxProcessInfo::getAll()) {
        if (info.group == id && info.isRunning() && info.startTime >= startTime) running << info;
    }
    return running;
}

SxProcessInfo SxProcessGroup::oldestOf(const SxList<SxProcessInfo>& members) {
    const auto age = [](const SxProcessInfo& info) {
        return std::pair(info.startTime, info.id == info.group ? 0 : info.id);
    };
    return *std::min_element(members.begin(), members.end(),
                             [&](const SxProcessInfo& a, const SxProcessInfo& b) { return age(a) < age(b); });
}

bool SxProcessGroup::isSuspended() const {
    for (const SxProcessInfo& info : getRunning()) {
        if (info.state == 'T') return true;
    }
    return false;
}

void SxProcessGroup::suspend() const {
    signal(SIGSTOP, "suspend");
}

void SxProcessGroup::resume() const {
    signal(SIGCONT, "resume");
}

void SxProcessGroup::kill() const {
    signal(SIGKILL, "kill");
}

void SxProcessGroup::signal(int number, const char* what) const {
    if (id == getpgrp() || !isAlive()) return;
    if (::kill(-static_cast<pid_t>(id), number) == 0 || errno == ESRCH) return;
    throw SxException(SxException(SxOs::errorText(errno), UNIT, __LINE__),
                      SxString("Cannot ") + what + " process group " + id, UNIT, __LINE__);
}

void SxProcessGroup::reap(int64 exceptId) const {
    for (const SxProcessInfo& info : SxProcessInfo::getAll()) {
        if (info.group != id || info.isRunning() || info.parent != getpid()) continue;
        if (info.id != id && info.id != exceptId) waitpid(static_cast<pid_t>(info.id), nullptr, WNOHANG);
    }
}
