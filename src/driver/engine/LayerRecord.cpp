#include "LayerRecord.h"

namespace {

uint32 checkOf(uint64 rawIdx, uint32 slot) {
    uint64 mixed = (rawIdx ^ std::rotl(uint64{slot}, 40)) + 0x9e37'79b9'7f4a'7c15;
    mixed = (mixed ^ (mixed >> 30)) * 0xbf58'476d'1ce4'e5b9;
    mixed = (mixed ^ (mixed >> 27)) * 0x94d0'49bb'1331'11eb;
    return static_cast<uint32>(mixed ^ (mixed >> 31));
}

} // namespace

LayerRecord::LayerRecord(RawIdx rawIdx_, SlotIdx slot_) {
    const auto number = static_cast<uint32>(slot_.value);
    rawIdx = little(rawIdx_.value);
    slot = little(number);
    check = little(checkOf(rawIdx_.value, number));
}

bool LayerRecord::isWhole() const {
    return little(check) == checkOf(little(rawIdx), little(slot));
}
