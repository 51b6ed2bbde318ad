#include "RecordFile.h"
#include "Service.h"
#include "ZqServiceFolder.h"

#include <string>

// Requests to the drive service: the first byte is the kind, the rest the body. And the same bytes as its
// table of disks. Nothing is mounted, whatever they ask for.
extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, size_t size) {
    if (size == 0) return 0;
    const RecordFile file(ZqServiceFolder::DISK_TABLE, data + 1, size - 1);
    Service service(file.prefix(), file.prefix());
    const std::string body(reinterpret_cast<const char*>(data) + 1, size - 1);
    for (const unsigned kind : {unsigned{data[0]}, static_cast<unsigned>(ZqDriveWire::Call::LoadDisks)}) {
        try {
            service.handle(kind, body, 1);
        } catch (const SxException&) {
            // Refused, as most of them must be.
        }
    }
    if (service.hasDisks()) std::abort();
    return 0;
}
