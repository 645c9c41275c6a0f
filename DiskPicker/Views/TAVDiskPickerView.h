// What the outline and the strip share: the cells of a model's volumes, one selection
// moved by the arrow keys of the view's axis and by the pointer, choosing with Enter
// or a double click, the message popover, and the model's news carried onto the GTK
// thread.
//
// Choosing a volume that cannot be chosen shows its message instead; the chosen
// handler only ever sees eligible volumes.
#pragma once

#include <functional>
#include <gtk/gtk.h>
#include <memory>
#include <optional>
#include <vector>

#include "DiskPicker/Model/TAVVolumeModel.h"
#include "DiskPicker/Views/TAVMessagePopover.h"
#include "DiskPicker/Views/TAVVolumeCell.h"

class TAVDiskPickerView {
public:
    using ChosenHandler = std::function<void(const TAVVolume& volume)>;

    virtual ~TAVDiskPickerView();
    TAVDiskPickerView(const TAVDiskPickerView&) = delete;
    TAVDiskPickerView& operator=(const TAVDiskPickerView&) = delete;

    // The view's top widget, to be put in a window.
    GtkWidget* widget() const { return _root; }
    const std::shared_ptr<TAVVolumeModel>& model() const { return _model; }

    // The signal of a chosen volume.
    void setChosenHandler(ChosenHandler handler) { _chosen = std::move(handler); }

    std::optional<size_t> selectedIndex() const { return _selected; }
    // Selects the volume and gives it the keyboard focus.
    void selectVolume(size_t index);
    // Moves the selection by `step` volumes among those shown (the first one when
    // nothing is selected). False when it cannot move.
    bool moveSelection(int step);
    // Chooses the selected volume: the chosen handler for an eligible one, its message
    // popover for one that cannot be chosen. False when nothing was chosen.
    bool chooseSelectedVolume();

    size_t diskCount() const { return _diskGroups.size(); }
    // The accessible elements: a disk's group and a volume's cell.
    GtkWidget* diskWidget(size_t diskIndex) const { return _diskGroups.at(diskIndex); }
    GtkWidget* volumeWidget(size_t index) const { return _cells.at(index)->widget(); }
    const TAVVolumeCell& volumeCell(size_t index) const { return *_cells.at(index); }
    TAVMessagePopover& popover() { return _popover; }

    // The label of a disk's accessible group ("Fixture Disk A, 1.07 GB disk").
    static std::string diskLabel(const TAVDisk& disk);

    // Shows the volume's state anew (the model observer calls it on the GTK thread).
    void volumeDidChange(const TAVVolume& volume);

protected:
    TAVDiskPickerView(std::shared_ptr<TAVVolumeModel> model, GtkOrientation axis);

    // Builds the view: makeDiskGroup for each disk, then a cell per volume appended
    // into the container it answered. Called by the subclass's constructor.
    void build();
    // The widget of a disk (its accessible group, appended to `content`) and the box
    // its volumes' cells go into.
    virtual GtkWidget* makeDiskGroup(const TAVDisk& disk, GtkWidget* content, GtkWidget** cellBox) = 0;
    virtual TAVVolumeCell::Layout cellLayout() const = 0;
    virtual GtkAccessibleRole volumeRole() const = 0;
    // Whether the volume's cell is shown (a collapsed disk hides its volumes).
    virtual bool isVolumeShown(size_t index) const;
    // The box the disk groups go into, inside the scrolled window.
    GtkWidget* content() const { return _content; }

private:
    void _installControllers();
    void _scrollToVolume(size_t index);
    void _installPointer(size_t index);
    static gboolean _keyPressed(GtkEventControllerKey*, guint keyval, guint, GdkModifierType, gpointer self);

    std::shared_ptr<TAVVolumeModel> _model;
    GtkOrientation _axis;
    GtkWidget* _root = nullptr;  // the scrolled window; a reference of ours
    GtkWidget* _content = nullptr;
    std::vector<GtkWidget*> _diskGroups;
    std::vector<std::unique_ptr<TAVVolumeCell>> _cells;
    std::optional<size_t> _selected;
    ChosenHandler _chosen;
    TAVMessagePopover _popover;
    // Shared with the model's observer, which may outlive the view on another thread.
    struct Liveness {
        TAVDiskPickerView* view;
    };
    std::shared_ptr<Liveness> _liveness;
    size_t _observerToken = 0;
};
