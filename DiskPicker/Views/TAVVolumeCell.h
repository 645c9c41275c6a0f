// One volume in a picker view: its name, size, free size and reapable size (a spinner
// until that arrives), dimmed when it cannot be chosen, with a button that opens the
// message popover when there is something to say. It is the volume's accessible
// element: its label is what a screen reader speaks ("NAME on DISK"), its description
// the sizes and, for a volume that cannot be chosen, why.
#pragma once

#include <functional>
#include <gtk/gtk.h>
#include <string>

#include "DiskPicker/Model/TAVVolume.h"

class TAVVolumeCell {
public:
    enum class Layout { Row, Tile };

    // `role` is the accessible role the view gives its volumes; `showMessage` is run
    // when the cell's message button is pressed.
    TAVVolumeCell(const TAVVolume& volume, Layout layout, GtkAccessibleRole role, std::function<void()> showMessage);

    GtkWidget* widget() const { return _box; }
    const TAVVolume& volume() const { return _volume; }

    void update(const TAVVolume& volume);
    void setSelected(bool selected);

    // What the accessible label and description say.
    static std::string accessibleLabel(const TAVVolume& volume);
    static std::string accessibleDescription(const TAVVolume& volume);
    // The text of the cell's message button's popover: the reason, else the warning.
    static std::string messageOf(const TAVVolume& volume);

private:
    TAVVolume _volume;
    GtkWidget* _box = nullptr;
    GtkWidget* _name = nullptr;
    GtkWidget* _size = nullptr;
    GtkWidget* _free = nullptr;
    GtkWidget* _reapable = nullptr;
    GtkWidget* _spinner = nullptr;
    GtkWidget* _status = nullptr;  // "Cannot be chosen" under the name
    GtkWidget* _info = nullptr;    // opens the message popover
    std::function<void()> _showMessage;
};
