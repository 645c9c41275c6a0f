// The vertical outline: one expandable group per disk, its volumes as rows below it
// (name, size, free size, reapable size). Up and Down move between the volumes shown.
#pragma once

#include "DiskPicker/Views/TAVDiskPickerView.h"

class TAVDiskOutlineView : public TAVDiskPickerView {
public:
    explicit TAVDiskOutlineView(std::shared_ptr<TAVVolumeModel> model);

    // Expands or collapses a disk's group; a collapsed disk's volumes are skipped by
    // the arrow keys, and a selection among them is dropped.
    void setDiskExpanded(size_t diskIndex, bool expanded);
    bool isDiskExpanded(size_t diskIndex) const;

protected:
    GtkWidget* makeDiskGroup(const TAVDisk& disk, GtkWidget* content, GtkWidget** cellBox) override;
    TAVVolumeCell::Layout cellLayout() const override { return TAVVolumeCell::Layout::Row; }
    GtkAccessibleRole volumeRole() const override { return GTK_ACCESSIBLE_ROLE_TREE_ITEM; }
    bool isVolumeShown(size_t index) const override;

private:
    std::vector<GtkWidget*> _expanders;
    std::vector<size_t> _diskOfVolume;
};
