#include "ScriptedNetio.h"

#include "SxTime.h"
#include "zqnetio.h"

#include <algorithm>
#include <cstring>

namespace {

ScriptedNetio* current = nullptr;

ZqNetioStatus note(const std::string& text) {
    const std::lock_guard lock(ScriptedNetio::get().notesMutex);
    ScriptedNetio::get().notes.push_back(text);
    return 0;
}

ZqNetioStatus fetch(const std::string& how, uint64 offset, uint64 size, char* data) {
    ScriptedNetio& net = ScriptedNetio::get();
    note(how + " " + std::to_string(offset) + " " + std::to_string(size));
    if (SxWait::pass(net.latencyMs, [&] { return net.cancelled.load(); })) return 1;
    return net.fetch ? net.fetch(offset, size, data) : 1;
}

} // namespace

ScriptedNetio::ScriptedNetio() {
    current = this;
}

ScriptedNetio::~ScriptedNetio() {
    current = nullptr;
}

ScriptedNetio& ScriptedNetio::get() {
    return *current;
}

ZqNetioStatus zqNetioStart(int nThreads) {
    return note("start " + std::to_string(nThreads));
}
ZqNetioStatus zqNetioStop() {
    return note("stop");
}
const char* zqNetioStrError(ZqNetioStatus) {
    return "netio failed";
}
ZqNetioStatus zqNetioDownload(void* download) {
    *static_cast<void**>(download) = current;
    return 0;
}
ZqNetioStatus zqNetioDownloadFree(void*) {
    return note("free");
}
ZqNetioStatus zqNetioDownloadURL(const void*, const char* url) {
    return *url == '\0' ? 1 : note(std::string("url ") + url);
}
ZqNetioStatus zqNetioDownloadPath(const void*, const unsigned short*) {
    return 0;
}
ZqNetioStatus zqNetioDownloadHeaders(const void*, const char* const* headers) {
    for (; *headers; ++headers)
        note(std::string("header ") + *headers);
    return 0;
}
ZqNetioStatus zqNetioDownloadChunked(const void*, uint64, uint64) {
    return 0;
}
ZqNetioStatus zqNetioDownloadThrottle(const void*, double) {
    return 0;
}
ZqNetioStatus zqNetioDownloadProgress(const void*, uint64*, uint64*, uint64*) {
    return 0;
}
ZqNetioStatus zqNetioDownloadStart(const void*) {
    return 0;
}
ZqNetioStatus zqNetioDownloadWait(const void*, int*) {
    return 0;
}
ZqNetioStatus zqNetioDownloadFinished(const void*, int*) {
    return 0;
}
ZqNetioStatus zqNetioDownloadErr(const void*, uint64* nErrors) {
    *nErrors = 1;
    return 0;
}
ZqNetioStatus zqNetioDownloadGetErrMsg(const void*, char* buffer, uint64* length) {
    const std::string& text = ScriptedNetio::get().lastError;
    if (buffer) std::memcpy(buffer, text.data(), std::min<size_t>(text.size(), *length));
    *length = text.size();
    return 0;
}
ZqNetioStatus zqNetioDownloadRange(uint64 offset, uint64 size, char** data, const void*) {
    return fetch("range", offset, size, *data);
}
ZqNetioStatus zqNetioDownloadAnew(uint64 offset, uint64 size, char** data, const void*) {
    return fetch("anew", offset, size, *data);
}
ZqNetioStatus zqNetioDownloadRanges(const uint64*, const uint64*, char* const*, uint64, const void*) {
    return 1;
}
ZqNetioStatus zqNetioDownloadAnnounce(const uint64*, const uint64*, uint64 count, const void*) {
    return note("announce " + std::to_string(count));
}
ZqNetioStatus zqNetioDownloadForget(uint64 offset, uint64, const void*) {
    return note("forget " + std::to_string(offset));
}
ZqNetioStatus zqNetioDownloadCancel(const void*, bool on) {
    ScriptedNetio::get().cancelled = on;
    return note(on ? "cancel" : "go on");
}
