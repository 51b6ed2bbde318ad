#include "SxEventBus.h"

#include "SxException.h"

#include <cstring>

namespace {
constexpr const char* UNIT = "src/core/SxEventBus";
}

SxEventData::SxEventData(const SxString& first, const SxString& second) {
    append(first);
    append(second);
}

void SxEventData::append(const SxString& text) {
    types.append(static_cast<unsigned char>(Text));
    for (const char* c = text.ascii(); *c; ++c)
        buffer.append(*c);
    buffer.append('\0');
}

SxString SxEventData::getText(int64 argIdx) const {
    if (argIdx < 0 || argIdx >= getNArgs()) {
        throw SxException("The event has no argument " + SxString(argIdx), UNIT, __LINE__);
    }
    const char* text = buffer.data();
    for (int64 i = 0; i < argIdx; ++i)
        text += std::strlen(text) + 1;
    return SxString::fromUtf8(text);
}

SxEventListener::SxEventListener() {
    // So that the bus is made before, and outlives, a listener of static storage duration.
    SxEventBus::getGlobalObj();
}

SxEventListener::~SxEventListener() {
    SxEventBus::getGlobalObj().unsubscribe(this);
}

void SxEventListener::push(uint32 id, const SxEvent& event) {
    SxMutexBlock lock(&mutex);
    queue.emplace_back(id, event);
    ++nWaitingById[id];
    nWaiting.fetch_add(1, std::memory_order_release);
}

bool SxEventListener::tryPop(SxEvent* event) {
    SxMutexBlock lock(&mutex);
    if (queue.empty()) return false;
    *event = std::move(queue.front().second);
    --nWaitingById[queue.front().first];
    queue.pop_front();
    nWaiting.fetch_sub(1, std::memory_order_release);
    return true;
}

int64 SxEventListener::getWaitSize(uint32 id) const {
    SxMutexBlock lock(&mutex);
    const auto it = nWaitingById.find(id);
    return it == nWaitingById.end() ? 0 : it->second;
}

SxEventBus& SxEventBus::getGlobalObj() {
    static SxEventBus bus;
    return bus;
}

void SxEventBus::subscribe(uint32 id, SxEventListener* listener) {
    SxMutexBlock lock(&mutex);
    SxArray<SxEventListener*>& slots = listeners(id);
    if (std::find(slots.begin(), slots.end(), listener) != slots.end()) return;
    const auto empty = std::find(slots.begin(), slots.end(), nullptr);
    if (empty != slots.end()) {
        *empty = listener;
    } else {
        slots.append(listener);
    }
}

void SxEventBus::unsubscribe(uint32 id, SxEventListener* listener) {
    SxMutexBlock lock(&mutex);
    if (!listeners.containsKey(id)) return;
    SxArray<SxEventListener*>& slots = listeners(id);
    std::replace(slots.begin(), slots.end(), listener, static_cast<SxEventListener*>(nullptr));
}

void SxEventBus::unsubscribe(SxEventListener* listener) {
    SxMutexBlock lock(&mutex);
    for (const uint32 id : listeners.getKeys()) {
        SxArray<SxEventListener*>& slots = listeners(id);
        std::replace(slots.begin(), slots.end(), listener, static_cast<SxEventListener*>(nullptr));
    }
}

SxList<SxString> SxEventBus::getUnheard() const {
    SxMutexBlock lock(&mutex);
    SxList<SxString> lines;
    for (const SxString& line : unheard)
        lines << line;
    return lines;
}

SxString SxEventBus::location(const SxString& path, int line, const SxString& function) {
    const std::string& text = path.str();
    const size_t backslash = text.rfind('\\');
    const SxString file = backslash == std::string::npos ? path : SxString(text.substr(backslash + 1));
    return file + ":" + line + ":" + function;
}
