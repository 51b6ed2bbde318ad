#include "DriverLog.h"
#include "Service.h"
#include "SxException.h"
#include "SxOs.h"
#include "ZqServiceFolder.h"
#include "ZqServiceVersion.h"

#include <algorithm>

using ZqDriveWire::Call, ZqDriveWire::Reader, ZqDriveWire::Writer;

// The requests of clients, one by one.

namespace {

constexpr const char* UNIT = "src/driver/ServiceCalls";
constexpr int IMAGE_TYPE_ZQF = 1;

[[noreturn]] void refuse(const SxString& text) {
    throw SxException(text, UNIT, __LINE__);
}

void requireWhole(const Reader& request) {
    if (!request.ok()) refuse("The request is malformed");
}

void writeStatus(const ZqDiskStatus& status, Writer* out) {
    out->text(status.image).text(status.mountPath).text(status.drive).text(status.failure);
    for (const uint64 number :
         {status.deviceId, status.sectorSize, status.cursor, status.nIncluded, status.queueLength,
          status.nReads, status.nHeld, status.nBeyondQA, status.nStoredBytes, status.nDeliveredBytes,
          status.nLayeredBytes, status.nZeroBytes, status.nWaits, status.heldMs})
        out->number(number);
    out->number(static_cast<uint64>(status.mounterPid));
    for (const bool flag : {status.ready, status.replaced, status.removable, status.underflow,
                            status.suspended, status.monitored})
        out->flag(flag);
    out->number(static_cast<uint64>(status.servicePid)).number(status.madeNs);
    out->flag(status.isServedByKernel);
    out->number(status.waitSinceNs).number(status.lastWaitFromNs).number(status.lastWaitToNs);
    out->text(status.notTaken);
}

void writeList(const std::vector<uint64>& numbers, Writer* out) {
    out->number(numbers.size());
    for (const uint64 number : numbers)
        out->number(number);
}

/// Names the mount namespace of this process, for clients that compare it with their own: to one of another
/// namespace a drive that it can't see looks like one that somebody has unmounted a moment ago.
void writeNamespace(Writer* out) {
    const ZqServiceFolder::Namespace own = ZqServiceFolder::mountNamespace();
    out->number(own.device).number(own.inode).number(static_cast<uint64>(SxOs::processId()));
}

} // namespace

std::string Service::handle(unsigned kind, const std::string& body, int64 peer) {
    Reader request(body);
    Writer answer;
    const auto call = static_cast<Call>(kind);
    if (kind >= static_cast<unsigned>(Call::End) ||
        !(handleState(call, &request, &answer) || handleDisk(call, &request, &answer) ||
          handleGuard(call, &request, &answer) || handleService(call, &request, &answer, peer))) {
        refuse("No such request");
    }
    return answer.body();
}

/// Carries out a request; one for a disk that has gone is no failure.
void Service::ejectImage(Reader* request, Writer* answer) {
    const SxString image = request->text();
    request->number();
    requireWhole(*request);
    const bool wasBusy = removeAllLeft(image);
    const DiskPtr disk = find(image);
    const Disk::End end = disk ? eject(disk) : Disk::End();
    if (!end.lost.isEmpty()) refuse(end.lost);
    answer->flag(wasBusy || end.busy);
}

/// Of the disk with that image or number; without either, of all together.
uint64 Service::findProgress(const SxString& image, uint64 deviceId) {
    uint64 sum = 0;
    for (const DiskPtr& disk : all()) {
        if (image.isEmpty() && deviceId == 0) sum += disk->getProgress();
        if (disk->getParams().image == image || disk->getDeviceId() == deviceId) sum = disk->getProgress();
    }
    return sum;
}

/// What asks for the state of disks.
bool Service::handleState(Call call, Reader* request, Writer* answer) {
    switch (call) {
    case Call::State: {
        const SxString image = request->text();
        requireWhole(*request);
        const std::optional<ZqDiskStatus> status = stateOf(image);
        answer->flag(status.has_value());
        if (status) writeStatus(*status, answer);
        return true;
    }
    case Call::Disks: {
        requireWhole(*request);
        const std::vector<ZqDiskStatus> states = allStates();
        answer->number(states.size());
        for (const ZqDiskStatus& status : states)
            writeStatus(status, answer);
        return true;
    }
    case Call::Replaced: {
        const DiskPtr disk = find(request->text());
        requireWhole(*request);
        answer->flag(disk && disk->isReplaced());
        return true;
    }
    case Call::TraceEvent: {
        const DiskPtr disk = require(request->text());
        requireWhole(*request);
        answer->flag(disk->getVirtualDisk()->getTrace()->hasEvent());
        return true;
    }
    case Call::RequestData: {
        uint64 offset = 0, length = 0;
        require(request->text())->getVirtualDisk()->oldestRequest(&offset, &length);
        requireWhole(*request);
        answer->number(offset).number(length);
        return true;
    }
    case Call::PopMissing: {
        const DiskPtr disk = require(request->text());
        const uint64 room = std::min(request->number(), ZqDriveWire::MAX_INDICES);
        requireWhole(*request);
        writeList(disk->getVirtualDisk()->popMissing(room), answer);
        return true;
    }
    case Call::Progress: {
        const SxString image = request->text();
        const uint64 deviceId = request->number();
        requireWhole(*request);
        answer->number(findProgress(image, deviceId));
        return true;
    }
    case Call::Label: {
        const DiskPtr disk = byDeviceId(request->number());
        requireWhole(*request);
        answer->text(disk->getLabel());
        return true;
    }
    default:
        return false;
    }
}

/// What changes one disk.
bool Service::handleDisk(Call call, Reader* request, Writer* answer) {
    // Those with an image and a number, which some don't use.
    const auto simple = [&](auto&& operation) {
        const SxString image = request->text();
        const uint64 number = request->number();
        requireWhole(*request);
        operation(require(image), number);
        return true;
    };
    switch (call) {
    case Call::Eject:
        ejectImage(request, answer);
        return true;
    case Call::SetCursor:
        return simple([](const DiskPtr& disk, uint64 zqfIdx) { disk->setCursor(zqfIdx); });
    case Call::SetQACursor:
        return simple([](const DiskPtr& disk, uint64 zqfIdx) { disk->setQACursor(zqfIdx); });
    case Call::Suspend:
        return simple([](const DiskPtr& disk, uint64) { disk->suspend(); });
    case Call::Ready:
        return simple([](const DiskPtr& disk, uint64) { disk->setReady(); });
    case Call::Resume:
        return simple([](const DiskPtr& disk, uint64) { disk->getVirtualDisk()->resume(); });
    case Call::FailOnUnderflow:
        return simple([](const DiskPtr& disk, uint64) { disk->getVirtualDisk()->setFailOnUnderflow(); });
    case Call::MonitorOff:
        return simple([](const DiskPtr& disk, uint64) { disk->getVirtualDisk()->getTrace()->stop(); });
    case Call::FlushLayer:
        return simple([](const DiskPtr& disk, uint64) { disk->flushLayer(); });
    case Call::MonitorOn: {
        const DiskPtr disk = require(request->text());
        const SxString trace = request->text();
        requireWhole(*request);
        refuseOwn(trace);
        disk->monitorOn(trace);
        return true;
    }
    case Call::Deliver: {
        const DiskPtr disk = require(request->text());
        const uint64 zqfIdx = request->number();
        const std::string_view data = request->rest();
        requireWhole(*request);
        disk->getVirtualDisk()->deliver(zqfIdx, data.data(), data.size());
        return true;
    }
    case Call::Dismount: {
        const DiskPtr disk = byDeviceId(request->number());
        requireWhole(*request);
        answer->flag(disk->dismount());
        return true;
    }
    default:
        return false;
    }
}

bool Service::handleGuard(Call call, Reader* request, Writer* answer) {
    switch (call) {
    case Call::GuardOn: {
        const DiskPtr disk = byLetter(request->number());
        requireWhole(*request);
        answer->flag(disk->isMounted());
        return true;
    }
    case Call::GuardOff: {
        const DiskPtr disk = byLetter(request->number());
        requireWhole(*request);
        disk->restore();
        answer->flag(true);
        return true;
    }
    case Call::GuardImageType: {
        byLetter(request->number());
        const uint64 type = request->number();
        requireWhole(*request);
        if (type != IMAGE_TYPE_ZQF) refuse("The guard knows no image type " + SxString(type));
        return true;
    }
    case Call::GuardLogging: {
        guardLogging = request->flag();
        requireWhole(*request);
        return true;
    }
    case Call::GuardReparse: {
        const DiskPtr disk = byLetter(request->number());
        const SxString names = request->text(), directory = request->text();
        requireWhole(*request);
        if (guardLogging) driverLog("redirects " + names + " to " + directory);
        disk->redirect(names.tokenize(','), directory);
        return true;
    }
    default:
        return false;
    }
}

/// What concerns the service as a whole.
bool Service::handleService(Call call, Reader* request, Writer* answer, int64 peer) {
    switch (call) {
    case Call::Mount: {
        const MountParams params = MountParams::read(request);
        requireWhole(*request);
        mount(params, peer);
        return true;
    }
    case Call::SetCacheSize: {
        const uint64 bytes = request->number();
        requireWhole(*request);
        cacheSize = bytes;
        for (const DiskPtr& disk : all())
            disk->setCacheSize(bytes);
        return true;
    }
    case Call::Leftover: {
        const SxString image = request->text();
        requireWhole(*request);
        const SxMutexBlock block(&leftFile);
        const Left left = takeLeft(image);
        answer->flag(left != Left::No).flag(left == Left::Written);
        return true;
    }
    case Call::StoreDisks:
        storeDisks();
        return true;
    case Call::LoadDisks:
        loadDisks();
        return true;
    case Call::Reset:
        reset();
        return true;
    case Call::Ping:
        writeNamespace(answer);
        return true;
    case Call::Retire:
        requireWhole(*request);
        answer->flag(retire());
        return true;
    case Call::Version:
        answer->text(ZQ_SERVICE_VERSION);
        return true;
    default:
        return false;
    }
}
