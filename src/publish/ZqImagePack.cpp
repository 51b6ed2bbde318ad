#include "ZqImagePack.h"

#include "SxException.h"
#include "SxFSAction.h"
#include "SxMd5.h"
#include "SxQueue.h"
#include "SxSymbol.h"
#include "ZqBlocks.h"
#include "ZqFrameEncoder.h"
#include "ZqImageFiles.h"
#include "ZqImageFolder.h"
#include "ZqImageInfo.h"
#include "ZqImageLock.h"
#include "ZqLog.h"
#include "ZqPackedForm.h"
#include "ZqPackedMap.h"
#include "ZqSysEnv.h"

#include <memory>
#include <vector>

namespace {

constexpr const char* UNIT = "src/publish/ZqImagePack";
constexpr const char* NEW = ".new"; ///< ends the file's name while it is written
constexpr int64 WRITEBACK = 8 << 20;
/// Frames on their way for each core: one that is encoded, one that waits, one that is read or written.
constexpr int64 SLOTS_A_CORE = 3;

struct Slot {
    SxArray<char> plain = SxArray<char>(static_cast<int64>(ZqBlocks::STRETCH));
    int64 n = 0; ///< bytes in it
    std::string packed;
    uint32 checksum = 0;
    SxQueue<bool> encoded; ///< false where that failed
};

/// Encodes what comes, one of several.
class Encoder : public SxSystemThread {
public:
    Encoder(SxQueue<Slot*>* todo_, int64 level_) : todo(todo_), level(level_) { setThreadName("image pack"); }

protected:
    void main() override {
        while (const auto next = todo->pop()) {
            Slot* slot = *next;
            try {
                if (!encoder) encoder = std::make_unique<ZqFrameEncoder>(level);
                encoder->encode(slot->plain.data(), slot->n);
                slot->packed.assign(encoder->getFrame(), static_cast<size_t>(encoder->getFrameSize()));
                slot->checksum = encoder->getChecksum();
            } catch (...) {
                slot->encoded.push(false);
                throw;
            }
            slot->encoded.push(true);
        }
    }

private:
    SxQueue<Slot*>* todo;
    const int64 level;
    std::unique_ptr<ZqFrameEncoder> encoder;
};

/// Frames in their order, encoded side by side.
class Pipeline {
public:
    explicit Pipeline(int64 level) : slots(static_cast<size_t>(SxSystemThread::getNCores() * SLOTS_A_CORE)) {
        for (int64 i = 0; i < SxSystemThread::getNCores(); ++i) {
            encoders.push_back(std::make_unique<Encoder>(&todo, level));
            encoders.back()->start();
        }
    }
    ~Pipeline() { end(); }
    Pipeline(const Pipeline&) = delete;
    Pipeline& operator=(const Pipeline&) = delete;

    bool isFull() const { return nIn - nOut == slots.size(); }
    bool isEmpty() const { return nIn == nOut; }
    /// A place for the next bytes; there is one unless the pipeline is full.
    Slot* next() { return &slots[nIn % slots.size()]; }
    void push(Slot* slot) {
        todo.push(slot);
        ++nIn;
    }
    /// The oldest frame; waits for it.
    const Slot& pop() {
        Slot& slot = slots[nOut++ % slots.size()];
        if (slot.encoded.pop() != true) {
            end();
            for (const auto& encoder : encoders)
                if (encoder->hasException()) throw encoder->getException();
        }
        return slot;
    }

private:
    void end() {
        todo.close();
        for (const auto& encoder : encoders)
            encoder->wait();
    }

    std::vector<Slot> slots;
    size_t nIn = 0, nOut = 0;
    SxQueue<Slot*> todo;
    std::vector<std::unique_ptr<Encoder>> encoders;
};

/// Removes the file that is being written unless it has got its name.
class Temporary {
public:
    explicit Temporary(const SxString& path_) : path(path_) {}
    ~Temporary() {
        try {
            if (SxFSAction::exists(path)) SxFSAction::rm(path);
        } catch (const SxException& e) {
            zqLogMsg("publish", "cannot remove what was written so far: " + e.toString(3, "\n"));
        }
    }
    Temporary(const Temporary&) = delete;
    Temporary& operator=(const Temporary&) = delete;

private:
    const SxString path;
};

} // namespace

/// The packed file while it is written.
class ZqImagePack::Writer {
public:
    explicit Writer(const SxString& path) {
        file.create(path, 0666);
        // The digest that says which image it is is known only at the end, but must stand where a client sees
        // it first: its place is left free until then.
        const std::string origin(ZqPackedForm::ORIGIN_SIZE, '\0');
        write(origin);
        addEntry(ZqPackedForm::ORIGIN_SIZE, 0, ZqPackedForm::EMPTY_CHECKSUM);
    }

    void write(const Slot& slot) {
        write(slot.packed);
        addEntry(static_cast<int64>(slot.packed.size()), slot.n, slot.checksum);
        if (file.getOffset() - begun < WRITEBACK) return;
        file.startWriteback(begun, file.getOffset() - begun);
        begun = file.getOffset();
    }

    /// Gives the bytes of the file.
    uint64 finish(const SxString& md5) {
        const int64 nEntries = static_cast<int64>(entries.size()) / ZqPackedForm::ENTRY_SIZE;
        std::string table;
        ZqPackedForm::append(&table, ZqPackedForm::TABLE_MAGIC);
        ZqPackedForm::append(&table, static_cast<uint32>(entries.size() + ZqPackedForm::FOOTER_SIZE));
        table += entries;
        ZqPackedForm::append(&table, static_cast<uint32>(nEntries));
        table.push_back(static_cast<char>(ZqPackedForm::HAS_CHECKSUMS));
        ZqPackedForm::append(&table, ZqPackedForm::SEEK_MAGIC);
        write(table);
        const auto size = static_cast<uint64>(file.getOffset());
        file.seek(0);
        write(ZqPackedForm::origin(md5));
        file.sync();
        file.close();
        return size;
    }

private:
    void write(const std::string& bytes) { file.writeBuffer(bytes.data(), static_cast<int64>(bytes.size())); }
    void addEntry(int64 packed, int64 plain, uint32 checksum) {
        ZqPackedForm::append(&entries, static_cast<uint32>(packed));
        ZqPackedForm::append(&entries, static_cast<uint32>(plain));
        ZqPackedForm::append(&entries, checksum);
    }

    SxFileIO file;
    std::string entries;
    int64 begun = 0; ///< bytes that are on their way to the device
};

ZqImagePack::ZqImagePack(const SxString& image_, int64 level_)
    : image(ZqImageFolder::prefix(image_)),
      level(level_) {
    setThreadName("image pack");
}

int64 ZqImagePack::getMaxLevel() {
    return ZqFrameEncoder::getMaxLevel();
}

void ZqImagePack::main() {
    ZqImageLock::finishReplacement(image);
    const auto shape = ZqImageLock::take(image, ZqImageLock::Shape, ZqImageLock::Shared, "image pack");
    const auto growth = ZqImageLock::take(image, ZqImageLock::Growth, ZqImageLock::Exclusive, "image pack");
    const ZqImageInfo info(image);
    info.requireComplete(image);
    if (info.sizeZqf > info.sizeComplete) {
        throw SxException(SxString("'") + image + ZqImageFiles::ZQF + "' has " + info.sizeZqf +
                              " bytes, app.json says " + info.sizeComplete,
                          UNIT, __LINE__);
    }
    sizeZqf = info.sizeZqf;
    setNTotal(sizeZqf);
    const ZqFrameEncoder probe(level);
    const SxString packed = image + ZqImageFiles::PACKED;
    try {
        const Temporary temporary(packed + NEW);
        Writer writer(packed + NEW);
        const SxString digest = writeFrames(&writer);
        if (!info.app.checksumZqf.isEmpty() && !(info.app.checksumZqf == digest)) {
            throw SxException("The digest of img.zqf is " + digest + ", app.json says '" +
                                  SxParserKit::excerpt(info.app.checksumZqf) + "'",
                              UNIT, __LINE__);
        }
        sizePacked = writer.finish(digest);
        SxFSAction::mv(packed + NEW, packed);
        SxFSAction::syncDir(image);
    } catch (const SxException& e) {
        if (stopRequested()) throw;
        throw SxException(e, "Cannot write " + packed, UNIT, __LINE__);
    }
    packMap(info.app.checksumIdx);
}

void ZqImagePack::packMap(const SxString& digest) {
    const SxString idx = image + ZqImageFiles::IDX, packed = image + ZqImageFiles::IDX_PACKED;
    try {
        sizeIdxPacked = ZqPackedMap::pack(idx, packed, digest, [this] { return stopRequested(); });
        sizeIdx = static_cast<uint64>(SxFileInfo(idx).getSize());
    } catch (const SxException& e) {
        if (stopRequested()) throw;
        throw SxException(e, "Cannot write " + packed, UNIT, __LINE__);
    }
}

SxString ZqImagePack::writeFrames(Writer* writer) {
    const int64 t0 = ZqSysEnv::getSysTime();
    SxFileIO zqf(image + ZqImageFiles::ZQF, "rb");
    zqf.adviseSequential();
    SxMd5 md5;
    Pipeline pipeline(level);
    for (uint64 read = 0; read < sizeZqf || !pipeline.isEmpty();) {
        if (stopRequested()) throw SxException(SxException::STOPPED, "Stopped", UNIT, __LINE__);
        if (read < sizeZqf && !pipeline.isFull()) {
            Slot* slot = pipeline.next();
            slot->n = static_cast<int64>(std::min(ZqBlocks::STRETCH, sizeZqf - read));
            if (zqf.readBuffer(slot->plain.data(), slot->n) != slot->n) {
                throw SxException(SxFileIO::fileReadErr(zqf.getFilePath()), UNIT, __LINE__);
            }
            md5.update(slot->plain.data(), slot->n);
            read += static_cast<uint64>(slot->n);
            pipeline.push(slot);
            continue;
        }
        const Slot& slot = pipeline.pop();
        writer->write(slot);
        ++nFrames;
        addNCurrent(static_cast<uint64>(slot.n));
        updateSpeed(t0);
    }
    md5.finish();
    return md5.toString();
}
