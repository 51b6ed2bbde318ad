#include "ErofsMetadata.h"
#include "ErofsTree.h"
#include "PiecesReader.h"
#include "RecordFile.h"

#include <string>
#include <vector>

// The metadata that is made of an EROFS: what comes out is read back by a reader of its own, has the tree
// that the source has, and each block at its place by the map, within what is stored; or it is said what is
// wrong. The input, in numbers of two bytes: how many blocks are stored, how many entries of the map follow,
// and these (0xFFFF: none, and all blocks after these lie where they are); and then pieces of the drive
// (PiecesReader.h).
namespace {

constexpr uint64 N_RAW = PiecesReader::N_RAW;

class Input {
public:
    Input(const unsigned char* data_, size_t size_) : data(data_), size(size_) {
        nStored = number();
        for (uint64 rawIdx = 0; rawIdx < N_RAW; ++rawIdx)
            map.push_back(rawIdx);
        const uint64 n = number() % (N_RAW + 1);
        for (uint64 rawIdx = 0; rawIdx < n; ++rawIdx) {
            const uint64 place = number();
            map[rawIdx] = place == 0xFFFF ? ~uint64{0} : place % N_RAW;
        }
    }

    std::string mapBytes() const {
        std::string bytes;
        for (const uint64 place : map) {
            for (int i = 0; i < 8; ++i)
                bytes += static_cast<char>(place >> (8 * i) & 0xFF);
        }
        return bytes;
    }

    const unsigned char* data;
    size_t size;
    uint64 nStored = 0;
    std::vector<uint64> map;

private:
    uint64 number() {
        if (size < 2) return 0;
        const uint64 value = data[0] | uint64{data[1]} << 8;
        data += 2;
        size -= 2;
        return value;
    }
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, size_t size) {
    const Input input(data, size);
    PiecesReader reader(input.data, input.size);
    if (!ZqErofsWalk::isThat(&reader)) return 0;
    const std::string bytes = input.mapBytes();
    const RecordFile file("img.idx", reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size());
    const BlockMap map(file.prefix().str(), N_RAW * ZqBlocks::SIZE, false);
    std::string made;
    try {
        ErofsMetadata metadata(&reader, map, input.nStored);
        metadata.write([&](const std::string& part) { made += part; });
        if (made.size() != metadata.getSize()) std::abort();
    } catch (const SxException&) {
        if (!made.empty()) std::abort();
        return 0;
    }
    // What isn't as it should be is raised, and nothing catches that.
    ErofsTree tree(made);
    tree.requireApart();
    tree.requireMadeOf(ErofsTree(reader.getBytes()), input.map);
    if (tree.nFurther != input.nStored) std::abort();
    return 0;
}
