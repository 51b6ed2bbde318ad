#include "ZqArchive.h"

#include "SxArray.h"
#include "SxFSAction.h"
#include "SxFileIO.h"
#include "SxOs.h"

#include <memory>
#include <zstd.h>

namespace {

constexpr const char* UNIT = "src/platform/util/ZqArchiveZstd";
constexpr int64 CHUNK = 1 << 20;
/// Bytes that hold any frame header.
constexpr int64 MAX_FRAME_HEADER = 18;

struct FreeContext {
    void operator()(ZSTD_CCtx* context) const { ZSTD_freeCCtx(context); }
    void operator()(ZSTD_DCtx* context) const { ZSTD_freeDCtx(context); }
};
using Compressor = std::unique_ptr<ZSTD_CCtx, FreeContext>;
using Decompressor = std::unique_ptr<ZSTD_DCtx, FreeContext>;

size_t check(size_t result) {
    if (ZSTD_isError(result)) throw SxException(ZSTD_getErrorName(result), UNIT, __LINE__);
    return result;
}

/// The file that is being made; removed again unless keep() was reached.
class Target {
public:
    Target(const SxFileIO& source, const SxString& path) {
        SxStat from, to;
        SxOs& os = SxOs::get();
        if (os.statFd(source.getFd(), &from) == 0 && os.stat(SxOs::hostPath(path), &to) == 0 &&
            from.device == to.device && from.inode == to.inode) {
            throw SxException("'" + path + "' is the source itself", UNIT, __LINE__);
        }
        file.open(path, "wb");
    }
    ~Target() {
        if (!kept) SxOs::get().unlink(SxOs::hostPath(file.getFilePath()));
    }
    Target(const Target&) = delete;
    Target& operator=(const Target&) = delete;

    void write(const SxArray<char>& bytes, size_t n) {
        file.writeBuffer(bytes.data(), static_cast<int64>(n));
        written += static_cast<int64>(n);
    }
    int64 getWritten() const { return written; }
    void keep() {
        file.sync();
        file.close();
        SxFSAction::syncDir(SxFileInfo(file.getFilePath()).getPath());
        kept = true;
    }

private:
    SxFileIO file;
    int64 written = 0;
    bool kept = false;
};

Compressor makeCompressor(int level, int64 size) {
    if (level < ZSTD_minCLevel() || level > ZSTD_maxCLevel()) {
        throw SxException(SxString("There is no zstd level ") + level, UNIT, __LINE__);
    }
    Compressor context(ZSTD_createCCtx());
    if (!context) throw SxException("Out of memory", UNIT, __LINE__);
    check(ZSTD_CCtx_setParameter(context.get(), ZSTD_c_compressionLevel, level));
    check(ZSTD_CCtx_setParameter(context.get(), ZSTD_c_checksumFlag, 1));
    check(ZSTD_CCtx_setPledgedSrcSize(context.get(), static_cast<unsigned long long>(size)));
    return context;
}

/// False where `progress` asked for a stop.
bool compress(SxFileIO& source, Target& target, int level, const ZqArchive::Progress& progress) {
    const int64 size = source.getSize();
    const Compressor context = makeCompressor(level, size);
    SxArray<char> input(CHUNK), output(static_cast<int64>(ZSTD_CStreamOutSize()));
    bool atEnd = false;
    while (!atEnd) {
        const int64 n = source.readBuffer(input.data(), CHUNK);
        atEnd = source.getOffset() >= size || n == 0;
        ZSTD_inBuffer in{input.data(), static_cast<size_t>(n), 0};
        const ZSTD_EndDirective directive = atEnd ? ZSTD_e_end : ZSTD_e_continue;
        bool finished = false;
        while (!finished) {
            ZSTD_outBuffer out{output.data(), static_cast<size_t>(output.getSize()), 0};
            const size_t left = check(ZSTD_compressStream2(context.get(), &out, &in, directive));
            target.write(output, out.pos);
            finished = atEnd ? left == 0 : in.pos == in.size;
        }
        if (progress && !progress(source.getOffset())) return false;
    }
    return true;
}

int64 declaredSize(SxFileIO& source) {
    char header[MAX_FRAME_HEADER];
    const int64 n = source.readBuffer(header, MAX_FRAME_HEADER);
    source.seek(0);
    const unsigned long long size = ZSTD_getFrameContentSize(header, static_cast<size_t>(n));
    if (size == ZSTD_CONTENTSIZE_ERROR)
        throw SxException("It doesn't begin with a zstd frame", UNIT, __LINE__);
    if (size == ZSTD_CONTENTSIZE_UNKNOWN) throw SxException("The frame declares no size", UNIT, __LINE__);
    if (size > static_cast<unsigned long long>(INT64_MAX)) {
        throw SxException(SxString("The frame declares ") + size + " bytes", UNIT, __LINE__);
    }
    return static_cast<int64>(size);
}

void requireSpace(const SxString& path, int64 size) {
    const int64 space = SxFSAction::freeSpace(SxFileInfo(path).getPath());
    if (size > space) {
        throw SxException(SxString("It declares ") + size + " bytes, and only " + space + " are free", UNIT,
                          __LINE__);
    }
}

void decompress(SxFileIO& source, Target& target, int64 size) {
    const Decompressor context(ZSTD_createDCtx());
    if (!context) throw SxException("Out of memory", UNIT, __LINE__);
    SxArray<char> input(CHUNK), output(CHUNK);
    bool finished = false;
    while (const int64 n = source.readBuffer(input.data(), CHUNK)) {
        ZSTD_inBuffer in{input.data(), static_cast<size_t>(n), 0};
        bool drained = false;
        while (!finished && !drained) {
            ZSTD_outBuffer out{output.data(), static_cast<size_t>(CHUNK), 0};
            finished = check(ZSTD_decompressStream(context.get(), &out, &in)) == 0;
            if (target.getWritten() + static_cast<int64>(out.pos) > size) {
                throw SxException(SxString("It holds more than the declared ") + size + " bytes", UNIT,
                                  __LINE__);
            }
            target.write(output, out.pos);
            drained = in.pos == in.size && out.pos < out.size;
        }
        if (in.pos < in.size) throw SxException("Bytes follow the end of the frame", UNIT, __LINE__);
    }
    if (!finished) throw SxException("It is cut short", UNIT, __LINE__);
    if (target.getWritten() != size) {
        throw SxException(SxString("It declares ") + size + " bytes and holds " + target.getWritten(), UNIT,
                          __LINE__);
    }
}

} // namespace

bool ZqArchive::compressZSTD(const SxString& from, const SxString& to, int level, const Progress& progress) {
    try {
        SxFileIO source(from, "rb");
        source.adviseSequential();
        Target target(source, to);
        if (!compress(source, target, level, progress)) return false;
        target.keep();
        return true;
    } catch (const SxException& e) {
        throw SxException(e, "Cannot compress '" + from + "' to '" + to + "'", UNIT, __LINE__);
    }
}

void ZqArchive::decompressZSTD(const SxString& from, const SxString& to) {
    try {
        SxFileIO source(from, "rb");
        source.adviseSequential();
        const int64 size = declaredSize(source);
        requireSpace(to, size);
        Target target(source, to);
        decompress(source, target, size);
        target.keep();
    } catch (const SxException& e) {
        throw SxException(e, "Cannot decompress '" + from + "' to '" + to + "'", UNIT, __LINE__);
    }
}
