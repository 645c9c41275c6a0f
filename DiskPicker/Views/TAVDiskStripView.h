// The horizontal scrolling strip: the volumes as tiles side by side, grouped by disk
// with the disk's name over its tiles. Left and Right move between the volumes.
#pragma once

#include "DiskPicker/Views/TAVDiskPickerView.h"

class TAVDiskStripView : public TAVDiskPickerView {
public:
    explicit TAVDiskStripView(std::shared_ptr<TAVVolumeModel> model);

protected:
    GtkWidget* makeDiskGroup(const TAVDisk& disk, GtkWidget* content, GtkWidget** cellBox) override;
    TAVVolumeCell::Layout cellLayout() const override { return TAVVolumeCell::Layout::Tile; }
    GtkAccessibleRole volumeRole() const override { return GTK_ACCESSIBLE_ROLE_LIST_ITEM; }
};
