#include "ZqDriveKind.h"

#include "SxException.h"
#include "SxString.h"
#include "ZqServiceFolder.h"

#include <algorithm>
#include <cctype>
#include <cstdlib>

namespace {

using Mount = ZqMountTable::Mount;
using Drive = ZqDriveKind::Drive;

const std::set<std::string_view> NETWORK_TYPES = {"9p",
                                                  "afs",
                                                  "beegfs",
                                                  "ceph",
                                                  "cifs",
                                                  "coda",
                                                  "gpfs",
                                                  "lustre",
                                                  "ncpfs",
                                                  "nfs",
                                                  "nfs4",
                                                  "orangefs",
                                                  "prl_fs",
                                                  "smb3",
                                                  "smbfs",
                                                  "vboxsf",
                                                  "virtiofs",
                                                  "fuse.ceph",
                                                  "fuse.cifs",
                                                  "fuse.curlftpfs",
                                                  "fuse.glusterfs",
                                                  "fuse.juicefs",
                                                  "fuse.mfs",
                                                  "fuse.rclone",
                                                  "fuse.s3fs",
                                                  "fuse.sshfs",
                                                  "fuse.vmhgfs-fuse"};

/// Types that name a volume or a device of flash memory instead of a block device.
const std::set<std::string_view> VOLUME_TYPES = {"zfs", "ubifs", "jffs2"};

bool isNetwork(const Mount& mount) {
    // davfs and others only say that they are FUSE; their source is an address.
    return NETWORK_TYPES.contains(mount.type) ||
           (mount.type.starts_with("fuse") && mount.source.find("://") != std::string::npos);
}

std::string lower(std::string text) {
    for (char& c : text) {
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    }
    return text;
}

std::string_view firstFolder(std::string_view path) {
    while (path.starts_with('/'))
        path.remove_prefix(1);
    return path.substr(0, path.find_first_of("/?#"));
}

/// What stands in front of the host: "https://", "//"; empty in "nas:/games".
std::string headOf(const std::string& source) {
    if (source.starts_with("//")) return "//";
    const size_t end = source.find("://");
    const bool hasScheme = end != std::string::npos && end > 0 &&
                           std::all_of(source.begin(), source.begin() + static_cast<std::ptrdiff_t>(end),
                                       [](unsigned char c) { return std::isalnum(c) != 0; });
    return hasScheme ? source.substr(0, end + 3) : std::string();
}

/// Takes what stands in front of the last "@" of a text away, and notes the user's name in it.
void takeLogin(std::string* text, std::set<std::string>* persons) {
    const size_t at = text->rfind('@');
    if (at == std::string::npos) return;
    std::string user = text->substr(0, std::min(text->find(':'), at));
    user = user.substr(user.find_last_of(";\\") + 1); // a domain may come first
    if (!user.empty()) persons->insert(lower(user));
    text->erase(0, at + 1);
}

/// The user's name that the options of a mount have.
void takeLogin(std::string_view options, std::set<std::string>* persons) {
    while (!options.empty()) {
        const std::string_view option = options.substr(0, options.find(','));
        for (const std::string_view key : {"username=", "user=", "name="}) {
            if (option.starts_with(key)) persons->insert(lower(std::string(option.substr(key.size()))));
        }
        options.remove_prefix(std::min(option.size() + 1, options.size()));
    }
}

} // namespace

ZqDriveKind::ZqDriveKind(const ZqFactFiles* files_, const ZqMountTable* table_)
    : files(files_),
      table(table_) {
    const auto way = table->wayTo("/");
    if (!way.empty()) rootMount = way.back();
    for (const Mount& mount : table->getMounts()) {
        // What is bound onto a volume lies on somebody else's drive.
        if (mount.at.ends_with(std::string("/") + ZqServiceFolder::VOLUME) &&
            ZqServiceFolder::isBelow(mount.at))
            ourDevices.insert(mount.device);
    }
}

bool ZqDriveKind::mayHang(const Mount& mount) {
    return isNetwork(mount) || mount.type.starts_with("fuse") || mount.type == "autofs";
}

bool ZqDriveKind::isOurs(const Mount& mount) {
    return ourDevices.contains(mount.device) || ZqServiceFolder::isBelow(mount.at) ||
           ZqServiceFolder::isBelow(mount.source);
}

std::optional<Drive> ZqDriveKind::of(const Mount& mount) {
    const bool isRoot = &mount == rootMount;
    if (!isRoot && isOurs(mount)) return std::nullopt;
    if (isNetwork(mount)) return Drive{networkName(mount, getPersons()), Network};
    // They are all the same memory, and a machine has dozens of them, some made for a user. Read-only ones
    // merely hide what lies below.
    if (mount.type == "tmpfs" || mount.type == "ramfs" || mount.type == "rootfs") {
        if (mount.isReadOnly && !isRoot) return std::nullopt;
        return Drive{mount.type, Memory};
    }
    std::optional<Drive> drive = ofDevice(mount);
    if (!drive && isRoot) drive = Drive{mount.type, Fixed};
    return drive;
}

std::optional<Drive> ZqDriveKind::ofDevice(const Mount& mount) {
    // A pool or volume, without the parts of it, which are often named after users.
    if (VOLUME_TYPES.contains(mount.type)) {
        const std::string name = mount.source.substr(0, mount.source.find_first_of(":/"));
        return Drive{name.empty() ? mount.type : name, Fixed};
    }
    // Of FUSE only the drivers of disks show a drive; all else shows files that lie elsewhere.
    if (mount.type.starts_with("fuse") && mount.type != "fuseblk") return std::nullopt;
    const bool hasDevice = !mount.device.starts_with("0:");
    if (!hasDevice && !mount.source.starts_with("/dev/")) return std::nullopt;
    const std::string key = (hasDevice ? mount.device : mount.source) + " " + mount.type;
    const auto found = known.find(key);
    if (found != known.end()) return found->second;
    return known[key] = ofBlockDevice(kernelNameOf(mount), mount);
}

/// The kernel's name of a disk or partition, "sda1", which tells what it is. That of the mount may be a link
/// with a label, or a volume that is named after the machine's owner. Empty where it can't be told.
std::string ZqDriveKind::kernelNameOf(const Mount& mount) const {
    if (!mount.device.starts_with("0:")) {
        std::string name = files->target("sys/dev/block/" + mount.device);
        if (!name.empty()) return name;
    }
    constexpr std::string_view DEV = "/dev/";
    if (!mount.source.starts_with(DEV)) return {};
    // A file system over several devices names the first one, or all with colons between.
    const std::string source = mount.source.substr(0, mount.source.find(':'));
    std::string linked = files->target(source);
    if (!linked.empty()) return linked;
    const std::string name = source.substr(DEV.size());
    return name.find('/') == std::string::npos && name != "root" ? name : std::string();
}

std::optional<Drive> ZqDriveKind::ofBlockDevice(const std::string& kernelName, const Mount& mount) {
    if (kernelName.empty()) {
        const bool hasDevice = !mount.device.starts_with("0:");
        return Drive{hasDevice ? "/dev/block/" + mount.device : mount.type, Fixed};
    }
    std::string name = kernelName;
    std::replace(name.begin(), name.end(), '!', '/'); // as the kernel's names have it
    Drive drive{"/dev/" + name, Fixed};
    const std::string folder = "sys/class/block/" + kernelName + "/";
    const bool isReadOnlyImage = mount.type == "squashfs" || mount.type == "erofs";
    if (kernelName.starts_with("loop")) {
        if (isReadOnlyImage || ZqServiceFolder::isBelow(files->line(folder + "loop/backing_file")))
            return std::nullopt;
    }
    const bool isPartition = files->exists(folder + "partition");
    const std::string disk = isPartition ? folder + "../" : folder;
    if (kernelName.starts_with("ram") || kernelName.starts_with("zram")) {
        drive.type = Memory;
    } else if (kernelName.starts_with("sr") || mount.type == "iso9660") {
        drive.type = Optical;
    } else if (files->number(disk + "removable").value_or(0) != 0) {
        drive.type = Removable;
    }
    return drive;
}

const std::set<std::string>& ZqDriveKind::getPersons() {
    if (persons) return *persons;
    persons.emplace();
    for (const char* variable : {"USER", "LOGNAME"}) {
        const char* name = std::getenv(variable);
        if (name && *name) persons->insert(lower(name));
    }
    std::string text;
    try {
        text = files->text("etc/passwd");
    } catch (const SxException&) {
        // A machine without users of its own.
    }
    // Below are users for services, such as "games"; so is a folder called that may be shared.
    constexpr int64 FIRST_PERSON = 1000;
    for (const std::string_view line : ZqFactFiles::lines(text)) {
        const size_t end = std::min(line.find(':'), line.size());
        const size_t id = line.find(':', end + 1);
        if (end == 0 || id == std::string_view::npos) continue;
        const auto number = ZqFactFiles::toNumber(line.substr(id + 1, line.find(':', id + 1) - id - 1));
        if (number && *number >= FIRST_PERSON) persons->insert(lower(std::string(line.substr(0, end))));
    }
    return *persons;
}

std::string ZqDriveKind::networkName(const Mount& mount, std::set<std::string> persons) {
    takeLogin(std::string_view(mount.options), &persons);
    const std::string head = headOf(mount.source);
    std::string rest = mount.source.substr(head.size());
    // These have no login in front of a host, but paths or networks with the sign that ends one elsewhere.
    if (!mount.type.starts_with("nfs") && mount.type != "lustre") takeLogin(&rest, &persons);
    size_t end = 0; // of the host
    if (!head.empty()) {
        end = std::min(rest.find('/'), rest.size());
    } else if (rest.starts_with('[')) {
        end = std::min(rest.find("]:"), rest.size() - 1) + 1;
    } else if (rest.find(':') != std::string::npos) {
        end = rest.find(':');
    }
    std::string host = rest.substr(0, end);
    std::string_view path = std::string_view(rest).substr(end);
    if (head.empty() && path.starts_with(':')) {
        host += ':';
        path.remove_prefix(1);
    }
    // Some programs put all their settings there, passwords included.
    const bool isSettings = host.find_first_of(",='\"") != std::string::npos || rest.starts_with(':');
    if (isSettings) return mount.type;
    const std::string folder(firstFolder(path));
    std::string name = head + host;
    if (!folder.empty() && !persons.contains(lower(folder)))
        name += (path.starts_with('/') ? "/" : "") + folder;
    return name.empty() || name == head ? mount.type : name;
}
