#include "RecordFile.h"
#include "SxXxh64.h"
#include "ZqOrderHints.h"

#include <algorithm>

// img.hints as it comes from a server: what is taken fits the image, and is the same when it is written and
// read again. With an odd first input byte the rest gets its checksum, which fuzzing doesn't find.
namespace {

constexpr const char* MAP = "0123456789abcdef0123456789abcdef";
constexpr uint64 N_STRETCHES = 1000;

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, size_t size) {
    if (size < 1) return 0;
    std::string bytes(reinterpret_cast<const char*>(data) + 1, size - 1);
    const uint64 checksum = SxXxh64::of(bytes.data(), static_cast<int64>(bytes.size()));
    if (data[0] % 2 == 1) bytes.append(reinterpret_cast<const char*>(&checksum), sizeof checksum);
    const RecordFile file("img.hints", reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size());
    const auto hints = ZqOrderHints::read(file.prefix(), MAP, N_STRETCHES);
    if (!hints) return 0;
    for (const ZqOrderHints::Group& group : hints->groups) {
        if (group.end > N_STRETCHES || hints->find(group.first) != &group) std::abort();
        for (const uint32 stretchIdx : group.hot) {
            if (hints->find(stretchIdx) != &group) std::abort();
        }
    }
    hints->write(file.prefix());
    const auto again = ZqOrderHints::read(file.prefix(), MAP, N_STRETCHES);
    if (!again || again->groups != hints->groups) std::abort();
    return 0;
}
