#include "zqdevctl.h"

#include "SxException.h"
#include "ZqBlocks.h"
#include "ZqDriveWire.h"
#include "ZqServiceClient.h"

#include <algorithm>
#include <cstring>

using ZqDriveWire::Call, ZqDriveWire::Reader, ZqDriveWire::Writer;
using ZqServiceClient::keyOf, ZqServiceClient::Start;

namespace {

constexpr ZqStatus OK = 0;
constexpr ZqStatus FAILED = 1;
constexpr int64 MAX_WIDE = 32767; // units

/// A wide text; raises where it has no end within bounds.
SxString fromWide(ZqWide wide) {
    if (!wide) return {};
    const ZqWide end = wide + MAX_WIDE + 1;
    if (std::find(wide, end, 0) == end) {
        throw SxException("A text has more than " + SxString(MAX_WIDE) + " characters",
                          "src/platform/devctl/zqdevctl", __LINE__);
    }
    return SxString::fromUtf16(wide);
}

/// Runs what makes a status, turning what it raises into a failure.
template<class Body>
ZqStatus guarded(Body&& body) {
    try {
        return body();
    } catch (const SxException& e) {
        ZqServiceClient::setLastFailure(e.toString(SxException::ShowMessage, ": "),
                                        e.hasTag(ZqVolume::SILENT) ? ZqVolume::SILENT : "");
        return FAILED;
    }
}

ZqStatus perform(Call what, const Writer& request, Reader* answer, Start start) {
    return ZqServiceClient::call(what, request, answer, start) ? OK : FAILED;
}

/// A call about one image that gives nothing back but its status.
ZqStatus callImage(Call what, ZqWide image, uint64 argument = 0) {
    return guarded([&] {
        return perform(what, Writer().text(keyOf(fromWide(image))).number(argument), nullptr, Start::Never);
    });
}

/// Asks for the state of an image; `*mounted` tells whether it is served.
ZqStatus askState(ZqWide image, bool* mounted, ZqDiskStatus* status) {
    return guarded([&] {
        *mounted = ZqVolume::findDisk(fromWide(image), status);
        if (!*mounted) ZqServiceClient::setLastFailure({}); // nobody serves it, which is no failure
        return OK;
    });
}

/// Gives one field of the state of an image that must be served.
template<class Out, class Field>
ZqStatus askField(ZqWide image, Out* out, Field ZqDiskStatus::*field) {
    bool mounted = false;
    ZqDiskStatus status;
    const ZqStatus result = askState(image, &mounted, &status);
    if (result != OK) return result;
    if (!mounted) {
        ZqServiceClient::setLastFailure("The image is not mounted");
        return FAILED;
    }
    *out = static_cast<Out>(status.*field);
    return OK;
}

ZqStatus ping(ZqFlag* flag) {
    const ZqStatus status = perform(Call::Ping, Writer(), nullptr, Start::IfNeeded);
    if (status == OK) *flag = 1;
    return status;
}

ZqStatus version(char* buffer, uint64* size) {
    Reader answer;
    if (perform(Call::Version, Writer(), &answer, Start::IfNeeded) != OK) return FAILED;
    const SxString text = answer.text();
    const uint64 need = text.str().size() + 1;
    if (*size < need) {
        ZqServiceClient::setLastFailure("The buffer is too small for the version");
        return FAILED;
    }
    std::memcpy(buffer, text.ascii(), need);
    *size = need;
    return OK;
}

ZqStatus guard(Call what, unsigned char devId, ZqFlag* flag) {
    Reader answer;
    if (perform(what, Writer().number(devId), &answer, Start::IfNeeded) != OK) return FAILED;
    *flag = answer.flag() ? 1 : 0;
    return OK;
}

} // namespace

// NOLINTNEXTLINE(readability-function-size): the parameters of a mount
ZqStatus zqDriveMountImage(ZqWide image, ZqWide traceFolder, ZqFlag readOnly, ZqFlag readTW, ZqFlag removable,
                           ZqFlag hostFlag, ZqFlag awaitFileSystem, ZqFlag spareFlag, uint64 sizeRaw,
                           uint64 sectorSize, uint64 cursor) {
    return guarded([&] {
        const SxString trace = fromWide(traceFolder);
        Writer request;
        request.text(keyOf(fromWide(image))).text(trace.isEmpty() ? trace : keyOf(trace));
        for (const ZqFlag flag : {readOnly, readTW, removable, hostFlag, awaitFileSystem, spareFlag})
            request.flag(flag != 0);
        request.number(sizeRaw).number(sectorSize).number(cursor);
        return perform(Call::Mount, request, nullptr, Start::IfNeeded);
    });
}

ZqStatus zqDriveEjectImage(ZqWide image) {
    return guarded([&] {
        Reader answer;
        const Writer request = Writer().text(keyOf(fromWide(image))).number(0);
        const ZqStatus status = perform(Call::Eject, request, &answer, Start::Never);
        ZqServiceClient::setBusy(status == OK && answer.flag());
        return status;
    });
}

ZqStatus zqDriveIsMounted(ZqWide image, ZqFlag* flag) {
    bool mounted = false;
    ZqDiskStatus status;
    const ZqStatus result = askState(image, &mounted, &status);
    if (result == OK) *flag = mounted ? 1 : 0;
    return result;
}

ZqStatus zqDriveIsRemovable(ZqWide image, ZqFlag* flag) {
    return askField(image, flag, &ZqDiskStatus::removable);
}

ZqStatus zqDriveIsSuspended(ZqWide image, ZqFlag* flag) {
    return askField(image, flag, &ZqDiskStatus::suspended);
}

ZqStatus zqDriveIsUnderflow(ZqWide image, ZqFlag* flag) {
    return askField(image, flag, &ZqDiskStatus::underflow);
}

ZqStatus zqDriveIsMonitored(ZqWide image, ZqFlag* flag) {
    return askField(image, flag, &ZqDiskStatus::monitored);
}

ZqStatus zqDriveHasTraceEvent(ZqWide image, ZqFlag* flag) {
    return guarded([&] {
        Reader answer;
        const ZqStatus status =
            perform(Call::TraceEvent, Writer().text(keyOf(fromWide(image))), &answer, Start::Never);
        if (status == OK) *flag = answer.flag() ? 1 : 0;
        return status;
    });
}

ZqStatus zqDriveGetDeviceID(ZqWide image, uint64* id) {
    return askField(image, id, &ZqDiskStatus::deviceId);
}

ZqStatus zqDriveGetSectorSize(ZqWide image, uint64* bytes) {
    return askField(image, bytes, &ZqDiskStatus::sectorSize);
}

ZqStatus zqDriveGetCursor(ZqWide image, uint64* zqfIdx) {
    return askField(image, zqfIdx, &ZqDiskStatus::cursor);
}

ZqStatus zqDriveSetCursor(ZqWide image, uint64 zqfIdx) {
    return callImage(Call::SetCursor, image, zqfIdx);
}

ZqStatus zqDriveSetQACursor(ZqWide image, uint64 zqfIdx) {
    return callImage(Call::SetQACursor, image, zqfIdx);
}

ZqStatus zqDriveSuspend(ZqWide image) {
    return callImage(Call::Suspend, image);
}

ZqStatus zqDriveResume(ZqWide image) {
    return callImage(Call::Resume, image);
}

ZqStatus zqDriveSetFailOnUnderflow(ZqWide image) {
    return callImage(Call::FailOnUnderflow, image);
}

ZqStatus zqDriveGetOnDemandQueueLen(ZqWide image, uint64* nBlocks) {
    return askField(image, nBlocks, &ZqDiskStatus::queueLength);
}

ZqStatus zqDrivePopUnderflowZqFBlock(ZqWide image, uint64* zqfIdx) {
    uint64 count = 1;
    const ZqStatus status = zqDrivePopUnderflowZqFBlocks(image, zqfIdx, &count);
    if (status == OK && count == 0) {
        ZqServiceClient::setLastFailure("The underflow queue is empty");
        return FAILED;
    }
    return status;
}

ZqStatus zqDrivePopUnderflowZqFBlocks(ZqWide image, uint64* zqfIdx, uint64* count) {
    return guarded([&] {
        Reader answer;
        const uint64 room = std::min(*count, ZqDriveWire::MAX_INDICES);
        const ZqStatus status = perform(Call::PopMissing, Writer().text(keyOf(fromWide(image))).number(room),
                                        &answer, Start::Never);
        if (status != OK) return status;
        *count = std::min(room, answer.number());
        for (uint64 i = 0; i < *count; ++i)
            zqfIdx[i] = answer.number();
        return OK;
    });
}

ZqStatus zqDriveGetRequestData(ZqWide image, uint64* offset, uint64* length) {
    return guarded([&] {
        Reader answer;
        const ZqStatus status =
            perform(Call::RequestData, Writer().text(keyOf(fromWide(image))), &answer, Start::Never);
        if (status != OK) return status;
        *offset = answer.number();
        *length = answer.number();
        return OK;
    });
}

ZqStatus zqDriveResolveUnderflow(ZqWide image, uint64 zqfIdx, const char* data, uint64 length) {
    return guarded([&] {
        const SxString key = keyOf(fromWide(image));
        // An empty delivery goes out, too, to be refused.
        uint64 done = 0;
        do {
            const uint64 n = std::min(length - done, ZqDriveWire::DELIVERY_PART);
            const Writer request = Writer()
                                       .text(key)
                                       .number(zqfIdx + done / ZqBlocks::SIZE)
                                       .bytes(std::string_view(data + done, n));
            if (perform(Call::Deliver, request, nullptr, Start::Never) != OK) return FAILED;
            done += n;
        } while (done < length);
        return OK;
    });
}

ZqStatus zqDriveMonitorOn(ZqWide image, ZqWide traceFolder) {
    return guarded([&] {
        return perform(Call::MonitorOn,
                       Writer().text(keyOf(fromWide(image))).text(keyOf(fromWide(traceFolder))), nullptr,
                       Start::Never);
    });
}

ZqStatus zqDriveMonitorOff(ZqWide image) {
    return callImage(Call::MonitorOff, image);
}

ZqStatus zqDriveFlushTWToImage(ZqWide image) {
    return callImage(Call::FlushLayer, image);
}

ZqStatus zqDriveSetCacheSize(int bytes) {
    const int size = std::max(bytes, 0);
    ZqServiceClient::keepCacheSize(size);
    return perform(Call::SetCacheSize, Writer().number(static_cast<uint64>(size)), nullptr, Start::IfNeeded);
}

ZqStatus zqDriveStoreDisks() {
    return perform(Call::StoreDisks, Writer(), nullptr, Start::IfNeeded);
}

ZqStatus zqDriveLoadDisks() {
    return perform(Call::LoadDisks, Writer(), nullptr, Start::IfNeeded);
}

ZqStatus zqDriveReset() {
    ZqServiceClient::keepCacheSize(0);
    return perform(Call::Reset, Writer(), nullptr, Start::IfNeeded);
}

ZqStatus zqDrivePing(ZqFlag* flag) {
    return ping(flag);
}

ZqStatus zqDriveGetVersion(char* buffer, uint64* size) {
    return version(buffer, size);
}

ZqStatus zqGuardOn(unsigned char devId, ZqFlag* flag) {
    return guard(Call::GuardOn, devId, flag);
}

ZqStatus zqGuardOff(unsigned char devId, ZqFlag* flag) {
    return guard(Call::GuardOff, devId, flag);
}

ZqStatus zqGuardPing(ZqFlag* flag) {
    return ping(flag);
}

ZqStatus zqGuardGetVersion(char* buffer, uint64* size) {
    return version(buffer, size);
}

ZqStatus zqGuardSetImageType(unsigned char devId, int type) {
    return perform(Call::GuardImageType, Writer().number(devId).number(static_cast<uint64>(type)), nullptr,
                   Start::IfNeeded);
}

ZqStatus zqGuardSetLogging(ZqFlag on) {
    return perform(Call::GuardLogging, Writer().flag(on != 0), nullptr, Start::IfNeeded);
}

ZqStatus zqGuardSetReparse(unsigned char devId, ZqWide names, ZqWide directory) {
    return guarded([&] {
        return perform(Call::GuardReparse,
                       Writer().number(devId).text(fromWide(names)).text(keyOf(fromWide(directory))), nullptr,
                       Start::IfNeeded);
    });
}
