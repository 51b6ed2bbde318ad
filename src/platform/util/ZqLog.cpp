#include "ZqLog.h"

#include "SxClock.h"
#include "SxException.h"
#include "SxFSAction.h"
#include "SxMutex.h"
#include "ZqMachineRoot.h"
#include "ZqXdg.h"

#include <cstdio>
#include <ctime>
#include <memory>
#include <pthread.h>
#include <spdlog/logger.h>
#include <spdlog/sinks/rotating_file_sink.h>
#include <unistd.h>

namespace {

constexpr size_t MAX_FILE_BYTES = 5 << 20;
constexpr size_t N_OLD_FILES = 3;

// Every job of the library logs, so this unit is part of every program that uses it, also where the library
// is linked from an archive. So the hook is installed in every one of them, before main().
[[maybe_unused]] const bool machineRootInstalled = ZqMachineRoot::install();

struct Setup {
    SxMutex mutex;
    bool verbose SX_GUARDED_BY(mutex) = false;
    std::shared_ptr<const ZqLog::Sink> sink SX_GUARDED_BY(mutex);
    std::string file SX_GUARDED_BY(mutex);
    bool opened SX_GUARDED_BY(mutex) = false;
    std::shared_ptr<spdlog::logger> logger SX_GUARDED_BY(mutex);
};

Setup& setup() {
    static Setup s;
    return s;
}

std::string defaultFile() {
    const std::string folder = zqXdgFolder("XDG_STATE_HOME", ".local/state");
    return folder.empty() ? folder : folder + "/tavrin/log/tavrin.log";
}

/// Null where the file can't be had: logging must not make a job fail.
std::shared_ptr<spdlog::logger> openLogger(const std::string& path) {
    if (path.empty()) return nullptr;
    try {
        SxFSAction::mkdir_p(SxFileInfo(path).getPath(), 0700);
        auto sink = std::make_shared<spdlog::sinks::rotating_file_sink_mt>(path, MAX_FILE_BYTES, N_OLD_FILES);
        auto logger = std::make_shared<spdlog::logger>("tavrin", std::move(sink));
        logger->set_pattern("%v");
        logger->flush_on(spdlog::level::trace);
        // Its own handler would write to standard error, among the output of a client that wasn't asked for
        // it.
        logger->set_error_handler([](const std::string&) {});
        return logger;
    } catch (const std::exception&) {
        return nullptr;
    }
}

/// The log file's writer, opened on first use. The opening is not under the lock, as it may take time; where
/// two threads open at once, one writer is dropped.
std::shared_ptr<spdlog::logger> currentLogger() {
    Setup& s = setup();
    std::string path;
    {
        SxMutexBlock lock(&s.mutex);
        if (s.opened) return s.logger;
        path = s.file;
    }
    auto logger = openLogger(path.empty() ? defaultFile() : path);
    SxMutexBlock lock(&s.mutex);
    if (!s.opened && s.file == path) {
        s.opened = true;
        s.logger = std::move(logger);
    }
    return s.logger;
}

/// The thread's name and its id in the system; a thread without a name of its own has that of its maker.
std::string threadText() {
    char name[16] = "";
    pthread_getname_np(pthread_self(), name, sizeof name);
    return std::string(name) + "/" + std::to_string(gettid());
}

std::string makeLine(const std::string& tag, const std::string& text) {
    const int64 now = SxClock::get().systemMs();
    const std::time_t seconds = now / 1000;
    std::tm local{};
    localtime_r(&seconds, &local);
    char time[32];
    const size_t n = std::strftime(time, sizeof time, "%Y-%m-%d %H:%M:%S", &local);
    const SxString ms = SxString::sprintf(".%03d", static_cast<int>(now % 1000));
    return std::string(time, n) + ms.str() + " [" + tag + "] [" + SxString(threadText()).makeVisible().str() +
           "] " + text;
}

void writeMessage(const SxString& tag, const SxString& text) {
    const std::string& raw = text.str();
    const std::string cleanTag = tag.makeVisible().str();
    const std::string clean =
        SxString(raw.ends_with('\n') ? raw.substr(0, raw.size() - 1) : raw).makeVisible().str();
    Setup& s = setup();
    bool verbose = false;
    std::shared_ptr<const ZqLog::Sink> sink;
    {
        SxMutexBlock lock(&s.mutex);
        verbose = s.verbose;
        sink = s.sink;
    }
    const std::string line = makeLine(cleanTag, clean);
    if (verbose) std::fputs((line + "\n").c_str(), stderr);
    if (sink) {
        (*sink)(cleanTag, clean);
    } else if (const auto logger = currentLogger()) {
        logger->log(spdlog::level::info, spdlog::string_view_t(line));
    }
}

} // namespace

void zqLogMsg(const SxString& tag, const SxString& text) {
    try {
        writeMessage(tag, text);
    } catch (const std::exception& e) {
        std::fprintf(stderr, "A log message was lost: %s\n", e.what());
    }
}

void ZqLog::setVerbose(bool verbose) {
    Setup& s = setup();
    SxMutexBlock lock(&s.mutex);
    s.verbose = verbose;
}

void ZqLog::setSink(Sink sink) {
    Setup& s = setup();
    SxMutexBlock lock(&s.mutex);
    s.sink = sink ? std::make_shared<const Sink>(std::move(sink)) : nullptr;
}

void ZqLog::setFile(const SxString& path) {
    Setup& s = setup();
    SxMutexBlock lock(&s.mutex);
    s.file = path.str();
    s.opened = false;
    s.logger = nullptr;
}

SxString ZqLog::getFile() {
    Setup& s = setup();
    SxMutexBlock lock(&s.mutex);
    return s.file.empty() ? SxString(defaultFile()) : SxString(s.file);
}
