#include "MachineTree.h"
#include "SxClock.h"
#include "ZqDriveFacts.h"
#include "ZqDriveKind.h"

#include <gmock/gmock.h>

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr const char* SERVICE = "/run/user/1000/tavrin/00112233445566aa/mnt/3/";

/// A table of mounts while it is made. The mount points are folders of the tree, so that they can be asked.
class Table {
public:
    explicit Table(const MachineTree* tree_) : tree(tree_) {}

    /// Gives the mount's id.
    int add(int parent, const std::string& device, const std::string& at, const std::string& type,
            const std::string& source, const std::string& options = "rw", bool isThere = true) {
        if (isThere) std::filesystem::create_directories(tree->path(at.substr(1)));
        text += std::to_string(++id) + " " + std::to_string(parent) + " " + device + " / " + at + " " +
                options + ",relatime shared:1 master:2 - " + type + " " + source + " " + options + "\n";
        tree->write("proc/self/mountinfo", text);
        return id;
    }
    int root(const std::string& device = "8:2", const std::string& type = "ext4",
             const std::string& source = "/dev/sda2") {
        return add(0, device, "/", type, source);
    }
    /// A block device; `disk` is the one that it is a partition of, or empty.
    void device(const std::string& number, const std::string& name, const std::string& disk = "",
                const std::string& removable = "0") {
        const std::string whole = "sys/devices/block/" + (disk.empty() ? name : disk);
        const std::string folder = disk.empty() ? whole : whole + "/" + name;
        tree->link("sys/dev/block/" + number, folder);
        tree->link("sys/class/block/" + name, folder);
        tree->write(whole + "/removable", removable + "\n");
        if (!disk.empty()) tree->write(folder + "/partition", "1\n");
    }

    std::string text;

private:
    const MachineTree* tree;
    int id = 20;
};

/// Each drive as "name, file system, type", with a "+" where its size is known.
std::vector<std::string> drivesOf(const MachineTree& tree) {
    std::vector<std::string> all;
    for (const auto& drive : ZqDriveFacts::read(tree.root()).drives) {
        EXPECT_LE(drive.free, drive.size);
        all.push_back(drive.name.str() + ", " + drive.fileSystem.str() + ", " + std::to_string(drive.type) +
                      (drive.size > 0 ? " +" : ""));
    }
    return all;
}

std::string networkName(const std::string& type, const std::string& source, const std::string& options = "") {
    ZqMountTable::Mount mount;
    mount.type = type;
    mount.source = source;
    mount.options = options;
    return ZqDriveKind::networkName(mount, {"alice"});
}

} // namespace

TEST(DriveFacts, HaveEachDeviceOnceByItsKind) {
    const MachineTree tree;
    Table table(&tree);
    const int root = table.root();
    table.device("8:2", "sda2", "sda");
    table.add(root, "8:2", "/var/lib/bound", "ext4", "/dev/sda2");
    table.add(root, "8:17", "/media/alice/STICK\\040of\\011Alice", "vfat", "/dev/disk/by-label/ALICE");
    std::filesystem::create_directories(tree.path("media/alice/STICK of\tAlice"));
    table.device("8:17", "sdb1", "sdb", "1");
    table.add(root, "11:0", "/media/alice/DISC", "udf", "/dev/sr0");
    table.device("11:0", "sr0", "", "1");
    table.add(root, "254:1", "/home", "xfs", "/dev/mapper/alices--laptop-home");
    table.device("254:1", "dm-1");
    // btrfs has a number of its own, and two mounts of it are one drive.
    table.add(root, "0:40", "/data", "btrfs", "/dev/mapper/data");
    tree.link("dev/mapper/data", "dev/dm-7");
    table.add(root, "0:40", "/data/sub", "btrfs", "/dev/mapper/data");
    table.add(root, "259:3", "/fast", "ext4", "/dev/root"); // without sysfs
    table.add(root, "0:50", "/tank", "zfs", "tank/home/alice");
    table.add(root, "0:51", "/tank/x", "zfs", "tank/home/bob");
    table.add(root, "8:33", "/mnt/nt", "fuseblk", "/dev/sdc1");
    table.device("8:33", "sdc1", "sdc");
    table.add(root, "253:0", "/swapped", "ext4", "/dev/zram0");
    table.device("253:0", "zram0");
    table.add(root, "0:60", "/dev/shm", "tmpfs", "tmpfs");
    table.add(root, "0:61", "/run/user/1000", "tmpfs", "tmpfs");
    table.add(root, "104:0", "/raid", "ext4", "/dev/cciss/c0d0");
    table.device("104:0", "cciss!c0d0");
    EXPECT_THAT(drivesOf(tree),
                ElementsAre("/dev/sda2, ext4, 3 +", "/dev/sdb1, vfat, 2 +", "/dev/sr0, udf, 5 +",
                            "/dev/dm-1, xfs, 3 +", "/dev/dm-7, btrfs, 3 +", "/dev/block/259:3, ext4, 3 +",
                            "tank, zfs, 3 +", "/dev/sdc1, fuseblk, 3", "/dev/zram0, ext4, 6 +",
                            "tmpfs, tmpfs, 6 +", "/dev/cciss/c0d0, ext4, 3 +"));
    EXPECT_THAT(ZqDriveFacts::read(tree.root()).faults, IsEmpty());
}

TEST(DriveFacts, LeaveOutWhatIsNoDrive) {
    const MachineTree tree;
    Table table(&tree);
    const int root = table.root("0:30", "overlay", "overlay");
    const std::string service = SERVICE;
    for (const char* type : {"proc", "sysfs", "devtmpfs", "cgroup2", "autofs", "overlay", "mqueue", "bpf",
                             "fuse.portal", "fuse.gvfsd-fuse", "fuse.gocryptfs", "nsfs"})
        table.add(root, "0:31", std::string("/x/") + type, type, type);
    table.add(root, "0:32", "/hidden", "tmpfs", "tmpfs", "ro");
    table.add(root, "7:1", "/snap/fern/1", "squashfs", "/dev/loop1", "ro");
    table.device("7:1", "loop1");
    // Drives of ours: by FUSE, EROFS on its file, ext4 on a loop device, and that shown elsewhere.
    table.add(root, "0:33", service + "front", "fuse", "/games/fern");
    table.add(root, "0:34", service + "volume", "erofs", service + "front/disk", "ro");
    table.add(root, "7:2", "/run/tavrin/00112233445566aa/mnt/1/volume", "ext4", "/dev/loop2");
    table.add(root, "7:2", "/elsewhere", "ext4", "/dev/loop2");
    table.add(root, "7:3", "/elsewhere2", "ext4", "/dev/loop3");
    table.device("7:3", "loop3");
    tree.write("sys/devices/block/loop3/loop/backing_file",
               "/tmp/tavrin-1000/00112233445566aa/mnt/2/front/disk (deleted)\n");
    // Neither is one of ours: a loop device of somebody's, and folders with such names.
    table.add(root, "7:4", "/tavrin/disk", "ext4", "/dev/loop4");
    table.device("7:4", "loop4");
    tree.write("sys/devices/block/loop4/loop/backing_file", "/games/tavrin-x/00112233/image\n");
    table.add(root, "8:1", service + "volume/save", "ext4", "/dev/sda1"); // bound onto a volume
    table.add(root, "8:1", "/home", "ext4", "/dev/sda1");
    table.device("8:1", "sda1", "sda");
    EXPECT_THAT(drivesOf(tree),
                ElementsAre("overlay, overlay, 3 +", "/dev/loop4, ext4, 3 +", "/dev/sda1, ext4, 3 +"));
}

TEST(DriveFacts, DontAskWhatMayHang) {
    const MachineTree tree;
    Table table(&tree);
    const int root = table.root();
    const int nas = table.add(root, "0:40", "/nas", "nfs4", "nas:/export/alice");
    // Its mount point lies on the network, too.
    table.add(nas, "8:17", "/nas/stick", "vfat", "/dev/sdb1");
    const int automount = table.add(root, "0:41", "/net", "autofs", "systemd-1");
    table.add(automount, "8:18", "/net/disk", "ext4", "/dev/sdb2");
    table.add(root, "0:42", "/cloud", "fuse.sshfs", "alice@host:");
    table.add(root, "0:43", "/dav", "fuse", "https://alice:pw@cloud.example/dav/alice");
    // One mount is hidden by the network; the other one of the same device isn't.
    table.add(root, "8:19", "/hidden/disk", "ext4", "/dev/sdb3");
    table.add(root, "0:40", "/hidden", "nfs4", "nas:/export/alice");
    table.add(root, "8:20", "/over", "ext4", "/dev/sdb4");
    table.add(26 + 3, "0:44", "/over", "cifs", "//nas/games");
    table.add(root, "8:20", "/seen", "ext4", "/dev/sdb4");
    // This one can't be asked.
    table.add(root, "8:21", "/gone", "ext4", "/dev/sdb5", "rw", false);
    EXPECT_THAT(drivesOf(tree),
                ElementsAre("/dev/sda2, ext4, 3 +", "nas:/export, nfs4, 4", "/dev/sdb1, vfat, 3",
                            "/dev/sdb2, ext4, 3", "host:, fuse.sshfs, 4",
                            "https://cloud.example/dav, fuse, 4", "/dev/sdb3, ext4, 3",
                            "/dev/sdb4, ext4, 3 +", "//nas/games, cifs, 4", "/dev/sdb5, ext4, 3"));
    const auto faults = ZqDriveFacts::read(tree.root()).faults;
    ASSERT_EQ(faults.size(), 1U);
    EXPECT_EQ(faults.front(), "Getting Size failed with error: 0x2 (/dev/sdb5)");

    const MachineTree machine;
    Table virtualised(&machine);
    const int shared = virtualised.root("0:40", "virtiofs", "hostfs");
    virtualised.add(shared, "8:1", "/disk", "ext4", "/dev/sda1");
    EXPECT_THAT(drivesOf(machine), ElementsAre("hostfs, virtiofs, 4", "/dev/sda1, ext4, 3 +"));
}

TEST(DriveFacts, NameNetworksWithoutPersons) {
    struct Case {
        const char *type, *source, *options, *expected;
    };
    const Case cases[] = {
        {"cifs", "//nas/games", "rw,username=bob", "//nas/games"},
        {"cifs", "//nas/games/bob/x", "", "//nas/games"},
        {"cifs", "//nas/Bob", "rw,username=bob,uid=0", "//nas"},
        {"cifs", "//nas/ALICE", "", "//nas"},
        {"cifs", "//FERN;bob:p@ss/w@nas/bob", "", "//nas"},
        {"nfs", "nas:/", "", "nas:"},
        {"nfs4", "nas:/vol/@alice", "", "nas:/vol"},
        {"nfs4", "[fe80::1]:/vol/x", "", "[fe80::1]:/vol"},
        {"nfs4", "[", "", "["},
        {"lustre", "10.0.0.1@tcp:/fern", "", "10.0.0.1@tcp:/fern"},
        {"fuse.sshfs", "bob@host:/home/bob", "", "host:/home"},
        {"fuse.sshfs", "bob@host:bob/games", "", "host:"},
        {"fuse.rclone", "remote:games/x", "", "remote:games"},
        {"fuse.rclone", ":sftp,host=h,user=bob,pass=secret:x", "", "fuse.rclone"},
        {"fuse.rclone", "r,pass='a':x", "", "fuse.rclone"},
        {"fuse", "https://bob:pw@cloud.example:444/dav?token=1", "", "https://cloud.example:444/dav"},
        {"fuse", "https://", "", "fuse"},
        {"fuse", "bob:pw@host://x", "", "host:/x"},
        {"9p", "C:\\", "", "C:\\"},
        {"virtiofs", "alice", "", "virtiofs"},
        {"virtiofs", "", "", "virtiofs"},
        {"9p", "/home/alice/shared", "", "/home"},
    };
    for (const Case& c : cases)
        EXPECT_EQ(networkName(c.type, c.source, c.options), c.expected) << c.source;

    // A user of this machine; "games" is one of the system's own.
    const MachineTree tree;
    Table table(&tree);
    const int root = table.root();
    table.add(root, "0:41", "/a", "cifs", "//nas/carol");
    table.add(root, "0:42", "/b", "cifs", "//nas/games");
    tree.write("etc/passwd", "games:x:5:60:games:/usr/games:/x\n:x:1000:\nbroken\ncarol:x:1000:1000::/:/x\n");
    EXPECT_THAT(drivesOf(tree),
                ElementsAre("/dev/sda2, ext4, 3 +", "//nas, cifs, 4", "//nas/games, cifs, 4"));
}

TEST(DriveFacts, NameTheDriveOfAPath) {
    const MachineTree tree;
    Table table(&tree);
    const int root = table.root();
    const int games = table.add(root, "8:17", "/zq-games", "ext4", "/dev/sdb1");
    const int nas = table.add(games, "0:40", "/zq-games/nas", "nfs", "nas:/export/x");
    table.add(nas, "0:41", "/zq-games/nas", "proc", "proc");
    table.add(root, "8:18", "/zq-gamesX", "ext4", "/dev/sdb2");
    table.add(root, "0:42", "/zq-games2", "cifs", "//nas/games");
    const std::pair<const char*, const char*> cases[] = {
        {"/", "/dev/sda2"},
        {"/zq-game", "/dev/sda2"},
        {"/zq-games", "/dev/sdb1"},
        {"/zq-games/", "/dev/sdb1"},
        {"/zq-games/./a/../b", "/dev/sdb1"},
        {"/zq-games/nas/x", ""}, // below what lies on the share
        {"/zq-games2/fern", "//nas/games"},
        {"", ""},
    };
    for (const auto& [path, name] : cases)
        EXPECT_EQ(ZqDriveFacts::nameOf(path, tree.root()), name) << path;
    const TempDir real;
    std::filesystem::create_symlink("/zq-games", real.path("link"));
    std::filesystem::create_symlink("/", real.path("up"));
    EXPECT_EQ(ZqDriveFacts::nameOf(real.path("up") + "/zq-games/x", tree.root()), "/dev/sdb1");
    EXPECT_EQ(ZqDriveFacts::nameOf("/", MachineTree().root()), "");
    // This machine's own: the root folder's drive is one of the list.
    const SxString name = ZqDriveFacts::nameOf("/");
    const auto own = ZqDriveFacts::read().drives;
    EXPECT_TRUE(std::any_of(own.begin(), own.end(), [&](const auto& drive) { return drive.name == name; }))
        << name;
}

TEST(DriveFacts, TakeDamagedAndLongTables) {
    const MachineTree tree;
    EXPECT_THAT(drivesOf(tree), IsEmpty());
    EXPECT_THAT(ZqDriveFacts::read(tree.root()).faults, ElementsAre(testing::Truly([](const SxString& fault) {
                    return fault.find("mountinfo") >= 0;
                })));
    // Mounts that lie on themselves and on each other, and lines that break off.
    tree.write("proc/self/mountinfo", "1 0 8:1 / / rw - ext4 /dev/sda1 rw\n"
                                      "1 1 8:1 / / rw - ext4 /dev/sda1 rw\n"
                                      "2 1 8:1 / / rw - ext4 /dev/sda1 rw\n"
                                      "1 2 8:1 / / rw - ext4 /dev/sda1 rw\n"
                                      "5 6 8:2 / /a rw - ext4 /dev/sda2 rw\n"
                                      "6 5 8:2 / /a rw - ext4 /dev/sda2 rw\n"
                                      "7 1 8:3 / b rw - ext4 /dev/sda3 rw\n"
                                      "8 1 8:3 / /c rw ext4 /dev/sda3 rw\n"
                                      "9 1 8:3 / /d\\04 rw -  \n"
                                      "x 1\n\n-\n9 1 8:3 / /d\\");
    EXPECT_THAT(ZqDriveFacts::read(tree.root()).faults, testing::Not(IsEmpty()));
    for (const char* path : {"/", "/a", "/a/b/c", "/c", "/d"})
        EXPECT_NE(ZqDriveFacts::nameOf(path, tree.root()), "/dev/sda3") << path;

    Table table(&tree);
    const int root = table.root();
    for (int i = 0; i < 10'000; ++i) {
        const std::string number = std::to_string(i);
        table.text += std::to_string(1000 + i) + " " + std::to_string(root) +
                      " 0:" + std::to_string(1000 + i) + " / /var/lib/containers/" + number +
                      "/merged rw shared:1 - " +
                      (i % 2 == 0 ? "overlay overlay" : "nfs nas" + number + ":/x") + " rw\n";
    }
    table.add(root, "8:17", "/last", "ext4", "/dev/sdb1");
    const int64 startMs = SxClock::get().steadyMs();
    const auto drives = ZqDriveFacts::read(tree.root()).drives;
    EXPECT_LT(SxClock::get().steadyMs() - startMs, 2000);
    EXPECT_EQ(drives.size(), 5002U);
    EXPECT_EQ(drives.back().name, "/dev/sdb1");
}
