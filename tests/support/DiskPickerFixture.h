// The machine the disk picker's tests look at: five volumes (built with the volume
// builder, as make-volume builds them) on three disks, a mount table in the format of
// /proc/self/mountinfo naming them among entries that are no volumes, and a sysfs tree.
//
//   disk vfa "Fixture Disk A" (model with blanks around it), 1 GiB
//     vfa1  System   an installed 10.6.8
//     vfa2  Locked   an installed 10.6.8, mounted read-only
//   disk vfb (no model: its kernel name), 2 GiB
//     vfb1  Empty    no installed system
//     vfb2  Newer    an installed 10.8; its device is an image file holding an ext2
//                    superblock labelled "Archive", which names the volume
//   disk vfc (no partition file: a disk of its own), 512 MiB
//     vfc   Spare    an installed 10.5.8
//
// Besides: proc, sysfs, tmpfs, a network file system, a second mount of vfa1 and a
// file mounted onto a file, none of which is a volume.
#pragma once

#include <string>
#include <vector>

namespace testsupport {

class DiskPickerFixture {
public:
    // Builds it all in `dir` (made when missing).
    explicit DiskPickerFixture(std::string dir);

    const std::string& dir() const { return dir_; }
    std::string mountInfo() const { return dir_ + "/mountinfo"; }
    std::string sysfs() const { return dir_ + "/sys"; }
    // The mount point of the volume whose folder is `name` ("System", "Locked", ...).
    std::string mountPoint(const std::string& name) const { return dir_ + "/volumes/" + name; }
    // "FERRYHOLD_MOUNTINFO=... FERRYHOLD_SYSFS=...", shell-quoted, for a command line.
    std::string environment() const;

    // The volume folders in mount-table order.
    static const std::vector<std::string>& volumeNames();

private:
    void _buildVolumes() const;
    void _writeSysfs() const;
    void _writeLabelledImage(const std::string& path, const std::string& label) const;
    void _writeMountInfo() const;

    std::string dir_;
};

}  // namespace testsupport
