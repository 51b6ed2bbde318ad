#include "ZqStatsReporter.h"

#include "SxTime.h"
#include "ZqLog.h"
#include "ZqReportPass.h"
#include "ZqReportSections.h"
#include "ZqTries.h"
#include "ZqWaitingReports.h"

using SxParserKit::SxSymbol;

namespace {

constexpr const char* UNIT = "src/base/ZqStatsReporter";

void log(const SxString& text) {
    zqLogMsg("base", "ZqStatsReporter: " + text);
}

/// The run has asked the drive service for its versions; here that could take as long as the service is
/// silent.
void fillFacts(ZqRuntimeInfo* info, bool wantsMachine) {
    if (wantsMachine) {
        info->getMachineFacts();
    } else {
        info->getSystemVersions();
    }
}

/// In this order: whoever stores a report looks for the consent first.
void takeBack(const SxString& guid) {
    ZqTries tries;
    tries.run([&] { ZqStatsConsents::takeBack(guid); });
    tries.run([&] { ZqWaitingReports::forget(guid); });
    tries.raise();
}

ZqStatsConsent give(const ZqStatsWish& wish, const SxString& guid) {
    if (guid.isEmpty()) throw SxException("Statistics need an application that has a guid", UNIT, __LINE__);
    const ZqReportTarget target(wish.url, wish.headers);
    const SxList<SxString> sections = ZqReportSections::of(wish.sections);
    const std::optional<ZqStatsConsent> former = ZqStatsConsents::find(guid);
    ZqStatsConsent consent = ZqStatsConsents::give(guid, target, sections);
    if (!former || former->givenMs != consent.givenMs) ZqWaitingReports::forget(guid);
    return consent;
}

/// Whether a later report tells something: it has the organisation in any case.
bool tellsSomething(const SxSymbol& report) {
    return report.getSize() > 1;
}

} // namespace

ZqStatsReporter::ZqStatsReporter(int64 endMs_) : endMs(endMs_), facts(&fillFacts) {
    setThreadName("statistics");
}

ZqStatsReporter::~ZqStatsReporter() {
    isStopping = true;
    wait();
}

void ZqStatsReporter::check(const ZqStatsWish& wish) {
    const bool hasAddress = !wish.url.isEmpty();
    if (wish.isRefused && hasAddress)
        throw SxException("Statistics can't be sent and refused at the same time", UNIT, __LINE__);
    if (!hasAddress && (!wish.headers.isEmpty() || !wish.sections.isEmpty())) {
        throw SxException("Headers and sections of statistics need the address that they are for", UNIT,
                          __LINE__);
    }
    if (hasAddress) ZqReportTarget(wish.url, wish.headers);
    ZqReportSections::of(wish.sections);
}

void ZqStatsReporter::open(const ZqStatsWish& wish, const SxString& guid) {
    check(wish);
    consent.reset();
    if (wish.isRefused) {
        takeBack(guid);
    } else if (!wish.url.isEmpty()) {
        consent = give(wish, guid);
    } else {
        attempt([&] { consent = ZqStatsConsents::find(guid); });
    }
}

bool ZqStatsReporter::wantsApps() const {
    return consent && consent->sections.contains(ZqReportSections::APPS);
}

void ZqStatsReporter::applicationStarts(const ZqRuntimeInfo& info) {
    begin(info);
}

void ZqStatsReporter::hasFailed(const ZqRuntimeInfo& info) {
    ZqRuntimeInfo told = info;
    told.startErr = true;
    begin(told);
}

void ZqStatsReporter::begin(const ZqRuntimeInfo& info) {
    if (!consent || hasBegun) return;
    hasBegun = true;
    first = info;
    {
        SxMutexBlock lock(&mutex);
        token = info.clientToken;
        isServing = true;
    }
    // Without a thread nothing is sent, and the run goes on.
    if (attempt([&] { start(); })) return;
    SxMutexBlock lock(&mutex);
    isServing = false;
}

void ZqStatsReporter::main() {
    const bool isReady = isStored || attempt([&] { storeFirst(); });
    do {
        if (isReady) sendWaiting();
    } while (goesOn());
}

void ZqStatsReporter::storeFirst() {
    const auto& sections = consent->sections;
    facts(&first, sections.contains(ZqReportSections::ENV) || sections.contains(ZqReportSections::HOST));
    const SxSymbol document = first.toReport(sections, false);
    ZqWaitingReports(*consent).change(first.id, [&](ZqWaitingReports::Report* report) {
        report->token = first.clientToken;
        report->post = document;
    });
    isStored = true;
}

void ZqStatsReporter::storeLater(const ZqRuntimeInfo& info) {
    const SxSymbol document = info.toReport(consent->sections, true);
    ZqWaitingReports(*consent).change(first.id, [&](ZqWaitingReports::Report* report) {
        report->isEnded = true;
        if (report->token.isEmpty()) report->token = getToken();
        if (tellsSomething(document)) report->patch = document;
    });
}

void ZqStatsReporter::sendWaiting() {
    if (isStopping) return;
    ZqHttpLimits stoppable = limits;
    stoppable.stop = [this] { return isStopping.load(); };
    const ZqReportPass pass(*consent, first.id, stoppable, [this](const SxString& id, const SxString& given) {
        SxMutexBlock lock(&mutex);
        if (id == first.id) {
            token = given;
        } else if (!given.isEmpty()) {
            otherTokens(id) = given;
        }
    });
    // What has failed before was sent now, unless there was nothing left to be sent.
    bool hasSent = false;
    if (!attempt([&] { hasSent = pass.run(); }) || !hasSent) return;
    SxMutexBlock lock(&mutex);
    failure = SxString();
}

bool ZqStatsReporter::goesOn() {
    SxMutexBlock lock(&mutex);
    isServing = hasMore && !isStopping;
    hasMore = false;
    return isServing;
}

void ZqStatsReporter::end(const ZqRuntimeInfo& info, const std::function<bool()>& stop) {
    if (!hasBegun) return;
    hasBegun = false;
    if (stop()) isStopping = true;
    const int64 begunMs = SxClock::get().steadyMs();
    // The facts take a second at most, and then at least what is told isn't lost by a stop.
    SxWait::pass(endMs, [&] { return isStored || !isRunning(); });
    const bool isNoted = isStored && attempt([&] { storeLater(info); });
    if (isNoted && !stop()) {
        sendOnce();
        const int64 leftMs = endMs - (SxClock::get().steadyMs() - begunMs);
        SxWait::pass(std::max<int64>(leftMs, 0), [&] { return !isRunning() || stop(); });
    }
    isStopping = true;
    wait();
}

void ZqStatsReporter::sendOnce() {
    {
        SxMutexBlock lock(&mutex);
        hasMore = true;
        if (isServing) return;
        isServing = true;
        hasMore = false;
    }
    attempt([&] {
        wait();
        start();
    });
}

template<class Act>
bool ZqStatsReporter::attempt(Act&& act) {
    SxString text;
    try {
        act();
        return true;
    } catch (const SxException& e) {
        text = e.what();
    } catch (const std::exception& e) {
        text = e.what();
    }
    log(text);
    SxMutexBlock lock(&mutex);
    failure = text;
    return false;
}

SxString ZqStatsReporter::getToken() const {
    SxMutexBlock lock(&mutex);
    return token;
}

SxMap<SxString, SxString> ZqStatsReporter::getOtherTokens() const {
    SxMutexBlock lock(&mutex);
    return otherTokens;
}

SxString ZqStatsReporter::getFailure() const {
    SxMutexBlock lock(&mutex);
    return failure;
}
