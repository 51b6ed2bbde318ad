#pragma once

#include <cctype>
#include <string>
#include <string_view>
#include <vector>

/// Reads XML as a parser that knows no document types: elements nest, attributes are quoted and stand once,
/// and nothing has a meaning that wasn't meant to.
class XmlCheck {
public:
    /// What is wrong with `text`, with the place; empty where it is well-formed.
    static std::string faultOf(std::string_view text) {
        XmlCheck check(text);
        const std::string fault = check.read();
        return fault.empty() ? "" : fault + " at byte " + std::to_string(check.at);
    }

private:
    explicit XmlCheck(std::string_view text_) : text(text_) {}

    std::string read() {
        for (const char* prolog : {"<?xml ", "<!DOCTYPE html>"}) {
            if (text.substr(at).starts_with(prolog)) at = text.find('>', at) + 1;
        }
        while (at < text.size()) {
            const std::string fault = text[at] == '<' ? readTag() : readCharacter("<");
            if (!fault.empty()) return fault;
        }
        return open.empty() && nRoots == 1 ? "" : "the end comes too early";
    }

    std::string readCharacter(std::string_view forbidden) {
        const char c = text[at];
        if (open.empty() && std::isspace(static_cast<unsigned char>(c)) == 0)
            return "text outside of the root";
        if (forbidden.find(c) != std::string_view::npos) return "a character that must be escaped";
        if (static_cast<unsigned char>(c) < 32 && c != '\n' && c != '\t') return "a control character";
        if (text.substr(at).starts_with("]]>")) return "the end of a section that hasn't begun";
        if (c == '&') {
            const size_t end = text.find(';', at);
            const std::string_view entity = text.substr(at, end == std::string_view::npos ? end : end - at);
            bool isKnown = false;
            for (const char* known : {"&amp", "&lt", "&gt", "&quot"})
                isKnown = isKnown || entity == known;
            if (!isKnown) return "an unknown entity";
            at = end;
        }
        ++at;
        return "";
    }

    std::string readName() {
        const size_t begin = at;
        while (at < text.size() && (std::isalnum(static_cast<unsigned char>(text[at])) != 0 ||
                                    std::string_view("-:_").find(text[at]) != std::string_view::npos))
            ++at;
        return std::string(text.substr(begin, at - begin));
    }

    void skipSpace() {
        while (at < text.size() && std::isspace(static_cast<unsigned char>(text[at])) != 0)
            ++at;
    }

    bool take(std::string_view word) {
        if (!text.substr(at).starts_with(word)) return false;
        at += word.size();
        return true;
    }

    std::string readTag() {
        if (take("</")) {
            const std::string name = readName();
            if (open.empty() || open.back() != name || !take(">")) return "</" + name + "> closes nothing";
            open.pop_back();
            return "";
        }
        take("<");
        const std::string name = readName();
        if (name.empty()) return "a tag without a name";
        if (open.empty()) ++nRoots;
        open.push_back(name);
        std::vector<std::string> names;
        for (;;) {
            skipSpace();
            if (take(">")) return "";
            if (take("/>")) {
                open.pop_back();
                return "";
            }
            const std::string attribute = readName();
            if (attribute.empty() || !take("=\"")) return "a damaged attribute of <" + name + ">";
            for (const std::string& other : names) {
                if (other == attribute) return attribute + " stands twice";
            }
            names.push_back(attribute);
            while (at < text.size() && text[at] != '"') {
                const std::string fault = readCharacter("<");
                if (!fault.empty()) return fault;
            }
            if (!take("\"")) return "an attribute without an end";
        }
    }

    std::string_view text;
    size_t at = 0;
    int nRoots = 0;
    std::vector<std::string> open;
};
