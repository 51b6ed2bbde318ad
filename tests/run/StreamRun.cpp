#include "StreamRun.h"

namespace {
constexpr const char* PLAY = "#!/bin/sh\n"
                             "touch \"$PLAY_OUT.started\"\n"
                             "if [ -e \"$PLAY_OUT.pause\" ]; then cat textures/deep/* >\"$PLAY_OUT.half\"; "
                             "touch \"$PLAY_OUT.paused\"; fi\n"
                             "while [ -e \"$PLAY_OUT.pause\" ]; do sleep 0.05; done\n"
                             "if [ -e \"$PLAY_OUT.quit\" ]; then exit 7; fi\n"
                             "find . -type f | sort | xargs md5sum >\"$PLAY_OUT.part\"\n"
                             "mv \"$PLAY_OUT.part\" \"$PLAY_OUT\"\n"
                             "while [ -e \"$PLAY_OUT.hold\" ]; do sleep 0.05; done\n"
                             "exit 7\n";
} // namespace

void StreamRun::SetUp() {
    DriveRun::SetUp();
    if (IsSkipped()) return;
    dir.write("game/play.sh", PLAY);
    fs::permissions(dir.path("game/play.sh"), fs::perms(0755));
    ::setenv("PLAY_OUT", played.c_str(), 1);
    served = build("served", "erofs", {"--cmd", "{{ZQDRIVE}}/TAVRIN-protected/app/play.sh"});
    SxProcess sums("bash", {"-c", SxString("cd '" + source + "' && find . -type f | sort | xargs md5sum >'" +
                                           dir.path("right") + "'")});
    ASSERT_EQ(sums.run(), 0);
    server = std::make_unique<ZqFileServer>(SxString(served));
    server->start();
}
