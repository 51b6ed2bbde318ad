#include "ZqNetPools.h"

#include <algorithm>
#include <string_view>

namespace {

/// Host and port of an address.
std::string hostOf(std::string_view url) {
    const size_t host = url.find("://");
    if (host == std::string_view::npos) return {};
    const size_t begin = host + 3;
    return std::string(url.substr(begin, url.find_first_of("/?#", begin) - begin));
}

} // namespace

ZqNetPools::Place ZqNetPools::place(const SxString& url, bool yields) {
    const bool mayBeHttp2 = !yields && !onlyHttp1 && url.str().starts_with("https:");
    ZqNetPool*& pool = current.at(mayBeHttp2 ? Http2 : Http1);
    if (!pool) pool = pools.emplace_back(std::make_unique<ZqNetPool>()).get();
    return {pool, mayBeHttp2, mayBeHttp2 && !speaksHttp1};
}

bool ZqNetPools::noteVersion(ZqNetPool* pool, const SxString& url, bool isHttp1, bool yields) {
    if (!yields) speaksHttp1 = isHttp1;
    if (!pool->isMixed(hostOf(url.str()), isHttp1 ? 1 : 2)) return true;
    onlyHttp1 = true;
    renew();
    return false;
}

void ZqNetPools::suspect(const ZqNetPool* pool) {
    if (isCurrent(pool)) renew();
}

bool ZqNetPools::isCurrent(const ZqNetPool* pool) const {
    return std::ranges::find(current, pool) != current.end();
}

/// What is under way goes on where it is.
void ZqNetPools::renew() {
    current.fill(nullptr);
}

void ZqNetPools::collect(std::vector<pollfd>* waited) const {
    for (const auto& pool : pools)
        pool->collect(waited);
}

int64 ZqNetPools::timeToWait() const {
    int64 wait = -1;
    for (const auto& pool : pools) {
        const int64 ms = pool->timeToWait();
        if (ms >= 0) wait = wait < 0 ? ms : std::min(wait, ms);
    }
    return wait;
}

void ZqNetPools::perform(const std::vector<pollfd>& waited, const std::function<void(CURL*, int)>& ended) {
    for (const auto& pool : pools) {
        pool->perform(waited);
        int code = 0;
        while (CURL* easy = pool->takeEnded(&code))
            ended(easy, code);
    }
}

void ZqNetPools::tidy() {
    std::erase_if(pools, [this](const auto& pool) { return pool->isEmpty() && !isCurrent(pool.get()); });
}
