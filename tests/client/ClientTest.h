#pragma once

#include "SxJSONParser.h"
#include "SxProcess.h"
#include "TempDir.h"
#include "ZqImageFiles.h"

#include <cstdlib>
#include <gmock/gmock.h>

using std::string;
using testing::HasSubstr;
using testing::StartsWith;
using Words = std::vector<string>;

struct Outcome {
    int code = -1;
    string out, err;
};

inline SxParserKit::SxSymbol parseJson(const string& text) {
    SxJSONParser parser;
    parser.readString(text, "output");
    return parser.getRootSymbol();
}

/// Runs the real client, with its output in files of a folder of this test's own.
class ClientTest : public testing::Test {
protected:
    void SetUp() override {
        const char* bin = std::getenv("TAVRIN_BIN");
        ASSERT_NE(bin, nullptr) << "TAVRIN_BIN must name the client";
        client = bin;
        ::setenv("XDG_CONFIG_HOME", dir.path("config").c_str(), 1);
        ::setenv("XDG_STATE_HOME", dir.path("state").c_str(), 1);
        // What the machine itself has of these would hold before the settings of a test.
        for (const char* name : {"SSL_CERT_FILE", "SSL_CERT_DIR", "http_proxy", "https_proxy", "HTTPS_PROXY",
                                 "all_proxy", "ALL_PROXY", "no_proxy", "NO_PROXY"})
            ::unsetenv(name);
        ::setenv("WINEPREFIX", dir.path("prefix").c_str(), 1);
    }

    /// Arguments of a shell for a script in which "$@" is the client's command line.
    SxList<SxString> shellWords(const string& script, const Words& words) const {
        const string redirected =
            "{ " + script + "; } >'" + dir.path("out") + "' 2>'" + dir.path("err") + "'";
        SxList<SxString> arguments = {"-o", "pipefail", "-c", redirected, "bash", client};
        for (const string& word : words)
            arguments << SxString(word);
        return arguments;
    }
    /// Runs the client with `words` and more of them.
    Outcome run(Words words, const Words& more) const {
        words.insert(words.end(), more.begin(), more.end());
        return run(words);
    }
    Outcome runScript(const string& script, const Words& words) const {
        const int code = SxProcess("bash", shellWords(script, words)).run();
        return {code, dir.read("out"), dir.read("err")};
    }
    Outcome run(const Words& words) const { return runScript("\"$@\"", words); }

    /// An image of 3 files with 4 blocks.
    string makeImage(const string& name) const {
        dir.write("src/a", "a");
        dir.write("src/b/c", string(4097, 'c'));
        dir.write("src/d", string(4096, 'd'));
        const Outcome made = run({"content", "create", dir.path("src"), dir.path(name)});
        EXPECT_EQ(made.code, 0) << made.err;
        return dir.path(name);
    }
    /// An image folder with nothing but a map.
    string makeMap(const string& name, const std::vector<uint64>& entries) const {
        const auto* bytes = reinterpret_cast<const char*>(entries.data());
        dir.write(name + "/" + ZqImageFiles::IDX, {bytes, entries.size() * sizeof(uint64)});
        return dir.path(name);
    }

    string client;
    const TempDir dir;
};
