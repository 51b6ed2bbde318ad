#include "SxArray.h"
#include "SxException.h"
#include "ZqBlocks.h"
#include "ZqFrameDecoder.h"
#include "ZqSeekTable.h"

#include <cstdlib>

// A frame of img.zqf.zst as it comes from a server: never decodes beyond its buffer, and a frame that is
// found is no longer than what was there.
extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, size_t size) {
    const char* bytes = reinterpret_cast<const char*>(data);
    try {
        const int64 n = ZqFrameDecoder::findSize(bytes, static_cast<int64>(size));
        if (n < 0 || n > static_cast<int64>(size)) std::abort();
        SxArray<char> to(static_cast<int64>(ZqBlocks::STRETCH));
        if (n > 0) ZqFrameDecoder::decode(bytes, n, to.data(), to.getSize());
    } catch (const SxException&) {
    }
    return 0;
}
