#include "Failure.h"
#include "ZqDriveMeans.h"

#include <gmock/gmock.h>

using testing::AllOf;
using testing::HasSubstr;

namespace {

ZqDriveMeans::Machine machineOf(bool isRoot) {
    ZqDriveMeans::Machine machine;
    machine.isRoot = machine.mayMount = isRoot;
    machine.fuse = ZqDriveMeans::Machine::Open;
    machine.hasLoop = true;
    machine.knows = [](const char*) { return true; };
    machine.isProgram = [](const char*) { return true; };
    return machine;
}

std::string refusal(const ZqDriveMeans::Machine& machine, const SxString& type, bool isDirect = false) {
    return failureOf([&] { ZqDriveMeans::require(ZqDriveMeans(machine).forVolume(type, isDirect)); });
}

} // namespace

TEST(DriveMeans, WhatIsMissingIsToldWithWhatToDo) {
    using Machine = ZqDriveMeans::Machine;
    struct Case {
        const char* name;
        bool isRoot;
        std::function<void(Machine*)> spoil;
        const char *type, *missing, *remedy;
    };
    const Case cases[] = {
        {"a container's root", true, [](Machine* m) { m->mayMount = false; }, "", "CAP_SYS_ADMIN",
         "container"},
        {"no FUSE", true, [](Machine* m) { m->fuse = Machine::Absent; }, "", "/dev/fuse", "modprobe fuse"},
        {"FUSE not for root", true, [](Machine* m) { m->fuse = Machine::Closed; }, "", "may not be opened",
         "give the container the device"},
        {"a kernel without EROFS", true, [](Machine* m) { m->knows = [](const char*) { return false; }; },
         "erofs", "has no file system EROFS", "a kernel that has it"},
        {"no loop devices", true, [](Machine* m) { m->hasLoop = false; }, "ext4", "/dev/loop-control",
         "modprobe loop"},
        {"EROFS for a user, whatever else is missing", false, [](Machine* m) { m->fuse = Machine::Absent; },
         "erofs", "can't be mounted without root", "--fs ext4"},
        {"FUSE not for users", false, [](Machine* m) { m->fuse = Machine::Closed; }, "",
         "that users may open", "chmod 666"},
        {"no fusermount3", false,
         [](Machine* m) { m->isProgram = [](const std::string& name) { return name != "fusermount3"; }; },
         "ext4", "needs fusermount3", "package fuse3"},
        {"no driver of a user's", false,
         [](Machine* m) { m->isProgram = [](const std::string& name) { return name != "fuse2fs"; }; }, "ext4",
         "needs fuse2fs", "install the package"},
    };
    for (const Case& each : cases) {
        SCOPED_TRACE(each.name);
        Machine machine = machineOf(each.isRoot);
        EXPECT_EQ(refusal(machine, std::string(each.type) == "erofs" && !each.isRoot ? "" : each.type), "");
        each.spoil(&machine);
        EXPECT_THAT(refusal(machine, each.type), AllOf(HasSubstr(each.missing), HasSubstr(each.remedy)));
    }
    // The kernel serves such an image itself, without a loop device.
    Machine direct = machineOf(true);
    direct.fuse = Machine::Absent;
    direct.hasLoop = false;
    EXPECT_EQ(refusal(direct, "erofs", true), "");
    Machine user = machineOf(false);
    user.isProgram = [](const std::string& name) { return name != "squashfuse"; };
    EXPECT_EQ(refusal(user, "ext4"), "") << "the driver of another file system isn't needed";
}

TEST(DriveMeans, AFileSystemIsKnownByItsFirstBlock) {
    const auto blockWith = [](size_t at, std::string_view magic) {
        std::string block(4096, '\0');
        return block.replace(at, magic.size(), magic);
    };
    EXPECT_EQ(ZqDriveMeans::typeOf(blockWith(1024, "\xe2\xe1\xf5\xe0")), "erofs");
    EXPECT_EQ(ZqDriveMeans::typeOf(blockWith(1080, "\x53\xef")), "ext4");
    EXPECT_EQ(ZqDriveMeans::typeOf(blockWith(0, "hsqs")), "squashfs");
    EXPECT_EQ(ZqDriveMeans::typeOf(blockWith(1025, "\xe2\xe1\xf5\xe0")), "");
    EXPECT_EQ(ZqDriveMeans::typeOf("hsq"), "");
}
