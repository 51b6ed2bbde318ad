#include "Builders.h"
#include "NetLab.h"
#include "NginxServer.h"
#include "SxException.h"
#include "SxTime.h"
#include "ZqBlocks.h"
#include "ZqRangeSource.h"
#include "ZqRemoteImage.h"

#include <algorithm>
#include <atomic>
#include <gmock/gmock.h>
#include <thread>

using testing::HasSubstr;

namespace {

constexpr uint64 STRETCH = ZqBlocks::STRETCH;
constexpr uint64 N_STRETCHES = 60;

/// Sets an environment variable as long as the object lives.
class Environment {
public:
    Environment(const char* name_, const std::string& value) : name(name_) {
        ::setenv(name, value.c_str(), 1);
    }
    ~Environment() { ::unsetenv(name); }
    Environment(const Environment&) = delete;
    Environment& operator=(const Environment&) = delete;

private:
    const char* const name;
};

/// Streams an image, and reads ranges of it at the same time; counts what is wrong.
struct Reading {
    explicit Reading(const NginxServer& server, const std::string& zqf_) : zqf(zqf_) {
        ZqNetSettings settings;
        // With such short requests the stream makes many, too.
        settings.segmentSize = 1;
        const auto link = SxPtr<ZqNetLink>::create(settings);
        link->setRateLimit(4e6);
        image = SxPtr<ZqRemoteImage>::create(link, SxString(server.url()), zqf.size());
    }

    void run(NginxServer* reloaded) {
        std::thread streamer([this] { stream(); });
        try {
            for (int i = 0; i < N_GROUPS; ++i) {
                readGroup();
                if (reloaded && i % 5 == 4) reloaded->reload();
            }
        } catch (const SxException& e) {
            ADD_FAILURE() << e.what();
        }
        image->getLink()->setRateLimit(0);
        streamer.join();
        EXPECT_EQ(nWrong, 0);
    }

private:
    void stream() {
        uint64 pos = 0;
        try {
            image->stream(0, [&](const char* bytes, int64 n) {
                const auto size = static_cast<uint64>(n);
                if (zqf.compare(pos, size, bytes, size) != 0) ++nWrong;
                pos += size;
                return true;
            });
        } catch (const SxException& e) {
            ADD_FAILURE() << e.what();
        }
        EXPECT_EQ(pos, zqf.size());
    }

    void readGroup() {
        std::string buffer(STRETCH, '\0');
        SxArray<uint64> offsets, sizes;
        for (int64 i = 0; i < ZqRangeSource::GROUP; ++i) {
            offsets.append(random.below(N_STRETCHES) * STRETCH);
            sizes.append(STRETCH);
            image->forget(offsets(i), STRETCH);
        }
        image->announce(offsets, sizes);
        for (const uint64 offset : offsets) {
            image->read(offset, STRETCH, buffer.data());
            if (zqf.compare(offset, STRETCH, buffer) != 0) ++nWrong;
        }
    }

    static constexpr int N_GROUPS = 30;
    const std::string& zqf;
    TestRandom random{7};
    std::atomic<int> nWrong{0};

public:
    SxPtr<ZqRemoteImage> image;
};

} // namespace

TEST(RemoteImageTls, givesRightBytesWhenTheServerEndsConnections) {
    TestRandom random;
    std::string zqf = random.bytes(N_STRETCHES * STRETCH);
    for (size_t i = 0; i < zqf.size(); i += 2)
        zqf[i] = 'x';
    struct Case {
        const char* name;
        const char* limit;
        bool isReloaded;
    };
    const Case cases[] = {{"5", "keepalive_requests 5;", false},
                          {"20", "keepalive_requests 20;", false},
                          {"100", "keepalive_requests 100;", false},
                          {"reloads", "", true}};
    for (const bool isPacked : {false, true}) {
        const TempDir dir;
        dir.write("img.zqf", zqf);
        if (isPacked) dir.write("img.zqf.zst", PackedImage(zqf).bytes());
        for (const Case& each : cases) {
            SCOPED_TRACE(std::string(isPacked ? "packed, " : "plain, ") + each.name);
            NginxServer server(dir.path(), each.limit);
            const Environment trust("SSL_CERT_FILE", server.authority());
            Reading reading(server, zqf);
            reading.run(each.isReloaded ? &server : nullptr);
            EXPECT_EQ(reading.image->getFigures().isPacked, isPacked);
            // Both versions of HTTP must have been spoken, or nothing was tried.
            EXPECT_THAT(server.log(), HasSubstr("HTTP/2.0 206"));
            EXPECT_THAT(server.log(), HasSubstr("HTTP/1.1 206"));
        }
    }
}
