#include "ZqHttpRange.h"

#include <algorithm>
#include <charconv>

namespace {

bool parseNumber(std::string_view text, int64* value) {
    const auto [stop, error] = std::from_chars(text.data(), text.data() + text.size(), *value);
    return error == std::errc() && stop == text.data() + text.size() && *value >= 0;
}

} // namespace

ZqHttpRange::Kind ZqHttpRange::parse(std::string_view field, int64 size, ZqHttpRange* range) {
    constexpr std::string_view UNIT_NAME = "bytes=";
    if (!field.starts_with(UNIT_NAME)) return None;
    field.remove_prefix(UNIT_NAME.size());
    const size_t dash = field.find('-');
    if (dash == std::string_view::npos) return None;
    const std::string_view from = field.substr(0, dash), to = field.substr(dash + 1);
    int64 first = 0, last = size - 1, suffix = 0;
    if (from.empty()) {
        if (!parseNumber(to, &suffix)) return None;
        first = size - std::min(suffix, size);
    } else {
        if (!parseNumber(from, &first)) return None;
        if (!to.empty() && (!parseNumber(to, &last) || last < first)) return None;
        last = std::min(last, size - 1);
    }
    *range = {first, last - first + 1};
    return range->n > 0 ? Satisfiable : Unsatisfiable;
}

std::string ZqHttpRange::toField(int64 size) const {
    return "bytes " + std::to_string(first) + "-" + std::to_string(first + n - 1) + "/" +
           std::to_string(size);
}
