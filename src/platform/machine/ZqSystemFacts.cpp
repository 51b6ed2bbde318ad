#include "ZqSystemFacts.h"

#include "SxException.h"
#include "ZqFactFiles.h"

namespace {

/// A value as a shell reads it, without the parts that os-release(5) rules out.
std::string unquoted(std::string_view text) {
    std::string value;
    char quote = 0;
    for (size_t i = 0; i < text.size(); ++i) {
        const char c = text[i];
        if (quote == 0 && (c == '"' || c == '\'')) {
            quote = c;
        } else if (c == quote && quote != 0) {
            quote = 0;
        } else if (c == '\\' && quote != '\'' && i + 1 < text.size()) {
            value += text[++i];
        } else {
            value += c;
        }
    }
    return value;
}

} // namespace

std::string ZqSystemFacts::valueOf(std::string_view text, std::string_view name) {
    std::string value;
    for (std::string_view line : ZqFactFiles::lines(text)) {
        line = ZqFactFiles::trim(line);
        if (line.size() <= name.size() || !line.starts_with(name) || line[name.size()] != '=') continue;
        value = unquoted(line.substr(name.size() + 1));
    }
    return value;
}

ZqSystemFacts ZqSystemFacts::read(const SxString& root) {
    const ZqFactFiles files(root);
    ZqSystemFacts facts;
    std::string name;
    try {
        const bool isOwn = files.exists("etc/os-release");
        const std::string text = files.text(isOwn ? "etc/os-release" : "usr/lib/os-release");
        name = valueOf(text, "PRETTY_NAME");
        if (name.empty()) name = valueOf(text, "NAME");
    } catch (const SxException& e) {
        facts.faults.push_back(e.toString(SxException::ShowMessage, ": "));
    }
    const std::string kernel = files.line("proc/sys/kernel/osrelease");
    if (kernel.empty()) facts.faults.emplace_back("proc/sys/kernel/osrelease doesn't tell the kernel");
    if (name.empty() && kernel.empty()) return facts;
    // As os-release(5) has it for a system without a name.
    if (name.empty()) name = "Linux";
    facts.name = SxString(name).validUtf8();
    if (!kernel.empty()) facts.name += " kernel " + SxString(kernel).validUtf8();
    return facts;
}
