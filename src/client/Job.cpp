#include "Job.h"

#include "Progress.h"

#include <tavrin/SxClock.h>
#include <tavrin/SxFileInfo.h>
#include <tavrin/SxTime.h>
#include <tavrin/ZqImageFolder.h>
#include <tavrin/ZqImageStaging.h>

#include <atomic>
#include <cerrno>
#include <ctime>
#include <fcntl.h>
#include <unistd.h>

namespace {
constexpr const char* UNIT = "src/client/Job";
constexpr int64 POLL_MS = 100;

constexpr int64 INSIST_NS = 10'000'000'000;

/// What the listener is told.
constexpr char INSISTS = 'i', ENDS = 'e';

std::atomic<bool> stopAsked = false;
std::atomic<int> toListener = -1;
std::atomic<int64> firstNs = 0; ///< when the first signal came; 0 for none
static_assert(std::atomic<bool>::is_always_lock_free && std::atomic<int64>::is_always_lock_free,
              "set in a signal handler");

/// For signal handlers.
int64 steadyNs() {
    timespec now = {};
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    return int64{now.tv_sec} * 1'000'000'000 + now.tv_nsec;
}

/// For signal handlers, too.
void tellListener(char word) {
    // The first word is all that it reads.
    if (::write(toListener, &word, 1) < 0) return;
}

struct sigaction actionOf(void (*handler)(int), unsigned flags) {
    struct sigaction action = {};
    action.sa_handler = handler;
    action.sa_flags = static_cast<int>(flags | SA_RESTART);
    return action;
}

/// The failure that a stop is shown as. Where the job has failed by anything but the stop itself, that
/// happened while it ended, and is told as the cause.
SxException stopped(const ZqTaskMon& job) {
    const SxException plain("stopped", UNIT, __LINE__);
    const SxException failure = job.getException();
    return failure.hasTag(SxException::STOPPED) ? plain : SxException(failure, "stopped", UNIT, __LINE__);
}
} // namespace

StopSignals::Actions StopSignals::take(const struct sigaction& action) {
    Actions former = {};
    for (size_t i = 0; i < SIGNALS.size(); ++i) {
        ::sigaction(SIGNALS[i], nullptr, &former[i]);
        if (former[i].sa_handler != SIG_IGN) ::sigaction(SIGNALS[i], &action, nullptr);
    }
    return former;
}

void StopSignals::giveBack(const Actions& actions) {
    for (size_t i = 0; i < SIGNALS.size(); ++i)
        ::sigaction(SIGNALS[i], &actions[i], nullptr);
}

StopSignals::StopSignals()
    : before((stopAsked = false,
              take(actionOf([](int) { stopAsked = true; }, static_cast<unsigned>(SA_RESETHAND))))) {
}

StopSignals::~StopSignals() {
    if (!hasFinished) giveBack(before);
}

void StopSignals::finish() {
    take(actionOf(SIG_IGN, 0));
    hasFinished = true;
}

bool StopSignals::isAsked() const {
    return stopAsked;
}

PatientSignals::PatientSignals(std::function<void()> insist_) : insist(std::move(insist_)) {
    firstNs = 0;
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0) throw SxException("Cannot make a pipe", UNIT, __LINE__);
    toListener = ends[1];
    listener = std::thread([this, from = ends[0]] {
        char word = ENDS;
        while (::read(from, &word, 1) < 0 && errno == EINTR)
            continue;
        ::close(from);
        if (word == INSISTS) insist();
    });
    before = StopSignals::take(actionOf(
        [](int) {
            const int saved = errno;
            const int64 nowNs = steadyNs();
            int64 none = 0;
            if (!firstNs.compare_exchange_strong(none, nowNs) && nowNs - firstNs >= INSIST_NS)
                tellListener(INSISTS);
            errno = saved;
        },
        0));
}

PatientSignals::~PatientSignals() {
    if (isAsked()) {
        StopSignals::take(actionOf(SIG_IGN, 0));
    } else {
        StopSignals::giveBack(before);
    }
    tellListener(ENDS);
    listener.join();
    ::close(toListener);
}

bool PatientSignals::isAsked() const {
    return firstNs != 0;
}

double runJob(ZqTaskMon* job, const SxString& label, const Output& out) {
    StopSignals signals;
    Progress progress(out.getMode(), label);
    const int64 startNs = SxClock::get().steadyNs();
    job->start();
    while (!SxWait::pass(POLL_MS, [&] { return !job->isRunning(); })) {
        if (signals.isAsked()) job->stop();
        progress.update(job->getNCurrent(), job->getNTotal());
    }
    job->wait();
    progress.finish();

    if (job->hasException()) throw stopAsked ? stopped(*job) : job->getException();
    const int64 milliseconds = (SxClock::get().steadyNs() - startNs) / 1'000'000;
    return static_cast<double>(milliseconds) / 1000;
}

void untilStopped(const std::function<void()>& begin) {
    const StopSignals signals;
    begin();
    while (!stopAsked)
        SxTime::msleep(POLL_MS);
}

void refuseForeignFolder(const SxString& image) {
    if (ZqImageFolder::isFree(image) || ZqImageFolder::holdsImage(image)) return;
    throw SxException("Folder '" + image + "' isn't empty and holds no image; name another, or empty it",
                      UNIT, __LINE__);
}

void requirePlainFile(const SxString& file, const char* what, const SxList<SxString>& folders) {
    const SxString begin = SxString("The ") + what + " can't be written: '" + file + "' ";
    const SxFileInfo info(file);
    if (info.isLink() || (info.exists() && !info.isFile())) {
        throw SxException(begin + "is not a plain file", UNIT, __LINE__);
    }
    for (const SxString& folder : folders) {
        if (!ZqImageStaging::liesIn(file, folder)) continue;
        throw SxException(begin + "lies in '" + folder + "', whose own files it might replace", UNIT,
                          __LINE__);
    }
}
