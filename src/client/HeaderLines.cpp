#include "HeaderLines.h"

#include <tavrin/SxException.h>
#include <tavrin/SxOs.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <memory>

namespace {
constexpr const char* UNIT = "src/client/HeaderLines";
/// Servers take a few kB of a request's head.
constexpr size_t MAX_FILE = 1 << 16;

/// A line break in it would begin another line of the request.
bool isHeader(const std::string& text) {
    const auto isControl = [](unsigned char c) { return (c < ' ' && c != '\t') || c == 0x7F; };
    const size_t colon = text.find(':');
    return colon != std::string::npos && colon > 0 && colon == text.find_first_of(": \t") &&
           text.find_first_not_of(" \t", colon + 1) != std::string::npos &&
           std::none_of(text.begin(), text.end(), isControl);
}

struct CloseFile {
    void operator()(std::FILE* file) const { std::fclose(file); }
};

/// Not by SxFileIO, which takes plain files only: a shell hands secrets on by a pipe.
std::string readFile(const std::string& path, const SxString& shown) {
    errno = 0;
    const std::unique_ptr<std::FILE, CloseFile> file(std::fopen(path.c_str(), "re"));
    std::string text(MAX_FILE + 1, '\0');
    if (file) text.resize(std::fread(text.data(), 1, text.size(), file.get()));
    if (!file || std::ferror(file.get()))
        throw SxException("can't read the file '" + shown + "': " + SxOs::errorText(errno), UNIT, __LINE__);
    if (text.size() > MAX_FILE) {
        throw SxException("takes a file of at most " + SxString(uint64{MAX_FILE}) + " bytes, and '" + shown +
                              "' is larger",
                          UNIT, __LINE__);
    }
    return text;
}
} // namespace

void HeaderLines::take(const std::string& text, SxList<SxString>* lines) {
    if (!text.starts_with("@")) {
        if (!isHeader(text)) {
            throw SxException("needs a line \"NAME: VALUE\", not '" + SxString(text).makeVisible() + "'",
                              UNIT, __LINE__);
        }
        *lines << SxString(text);
        return;
    }
    const SxString shown = SxString(text.substr(1)).makeVisible();
    const std::string all = readFile(text.substr(1), shown);
    int64 number = 0;
    bool isEmpty = true;
    for (size_t begin = 0; begin < all.size(); ++number) {
        const size_t end = std::min(all.find('\n', begin), all.size());
        std::string line = all.substr(begin, end - begin);
        begin = end + 1;
        if (line.ends_with('\r')) line.pop_back();
        if (line.empty()) continue;
        if (!isHeader(line)) {
            throw SxException("needs lines \"NAME: VALUE\", which line " + SxString(number + 1) + " of '" +
                                  shown + "' isn't",
                              UNIT, __LINE__);
        }
        *lines << SxString(line);
        isEmpty = false;
    }
    if (isEmpty)
        throw SxException("needs lines \"NAME: VALUE\", and '" + shown + "' has none", UNIT, __LINE__);
}
