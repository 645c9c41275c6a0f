#include "DiskPicker/Views/TAVVolumeCell.h"

#include <fmt/format.h>

#include "DiskPicker/Model/TAVByteCountFormatter.h"

namespace {

std::string bytes(uint64_t count) { return TAVByteCountFormatter::stringFromByteCount(count); }

GtkWidget* label(const char* cssClass, float xalign) {
    GtkWidget* l = gtk_label_new("");
    gtk_label_set_xalign(GTK_LABEL(l), xalign);
    gtk_label_set_ellipsize(GTK_LABEL(l), PANGO_ELLIPSIZE_END);
    if (cssClass) gtk_widget_add_css_class(l, cssClass);
    return l;
}

}  // namespace

TAVVolumeCell::TAVVolumeCell(const TAVVolume& volume, Layout layout, GtkAccessibleRole role,
                             std::function<void()> showMessage)
    : _volume(volume), _showMessage(std::move(showMessage)) {
    bool row = layout == Layout::Row;
    _box = GTK_WIDGET(g_object_new(GTK_TYPE_BOX, "accessible-role", role, "orientation",
                                   row ? GTK_ORIENTATION_HORIZONTAL : GTK_ORIENTATION_VERTICAL, "spacing",
                                   row ? 12 : 4, nullptr));
    gtk_widget_set_focusable(_box, TRUE);
    gtk_widget_add_css_class(_box, "tav-volume");
    gtk_widget_add_css_class(_box, row ? "tav-row" : "tav-tile");

    _name = label("tav-name", 0);
    _status = label("tav-status", 0);
    _size = label("tav-figure", row ? 1 : 0);
    _free = label("tav-figure", row ? 1 : 0);
    _reapable = label("tav-figure", row ? 1 : 0);
    _spinner = gtk_spinner_new();
    gtk_widget_set_tooltip_text(_spinner, "Working out the reapable size");
    _info = gtk_button_new_with_label("Why?");
    gtk_widget_add_css_class(_info, "flat");
    gtk_widget_set_focusable(_info, FALSE);
    gtk_widget_set_valign(_info, GTK_ALIGN_CENTER);
    g_signal_connect_swapped(_info, "clicked", G_CALLBACK(+[](TAVVolumeCell* cell) { cell->_showMessage(); }), this);

    GtkWidget* names = gtk_box_new(GTK_ORIENTATION_VERTICAL, 0);
    gtk_box_append(GTK_BOX(names), _name);
    gtk_box_append(GTK_BOX(names), _status);
    GtkWidget* reapable = gtk_box_new(GTK_ORIENTATION_HORIZONTAL, 4);
    gtk_box_append(GTK_BOX(reapable), _spinner);
    gtk_box_append(GTK_BOX(reapable), _reapable);
    if (row) {
        gtk_widget_set_hexpand(names, TRUE);
        gtk_widget_set_size_request(_size, 90, -1);
        gtk_widget_set_size_request(_free, 110, -1);
        gtk_widget_set_size_request(reapable, 150, -1);
        gtk_widget_set_halign(reapable, GTK_ALIGN_END);
        gtk_widget_set_margin_start(_box, 24);  // below its disk's heading
    } else {
        gtk_widget_set_size_request(_box, 150, -1);
    }
    // The button's place is kept when it is hidden, so that figures line up from one
    // volume to the next and tiles keep one height.
    GtkWidget* infoSlot = gtk_box_new(GTK_ORIENTATION_HORIZONTAL, 0);
    gtk_widget_set_size_request(infoSlot, row ? 80 : -1, 34);
    gtk_widget_set_halign(infoSlot, row ? GTK_ALIGN_END : GTK_ALIGN_FILL);
    gtk_widget_set_halign(_info, GTK_ALIGN_CENTER);
    gtk_box_set_homogeneous(GTK_BOX(infoSlot), TRUE);
    gtk_box_append(GTK_BOX(infoSlot), _info);
    for (GtkWidget* child : {names, _size, _free, reapable, infoSlot}) gtk_box_append(GTK_BOX(_box), child);
    update(volume);
}

std::string TAVVolumeCell::accessibleLabel(const TAVVolume& volume) {
    return volume.name + " on " + volume.diskName;
}

std::string TAVVolumeCell::accessibleDescription(const TAVVolume& volume) {
    std::string text = fmt::format("{} volume, {} free", bytes(volume.size), bytes(volume.freeSize));
    if (volume.reapableSize) text += fmt::format(", {} reapable", bytes(*volume.reapableSize));
    else if (volume.sizing == TAVSizingState::Pending) text += ", reapable size still being worked out";
    text += ".";
    if (volume.message) text += " Cannot be chosen: " + *volume.message;
    else if (volume.warning) text += " " + *volume.warning;
    return text;
}

std::string TAVVolumeCell::messageOf(const TAVVolume& volume) {
    return volume.message ? *volume.message : volume.warning.value_or("");
}

void TAVVolumeCell::update(const TAVVolume& volume) {
    _volume = volume;
    bool row = gtk_widget_has_css_class(_box, "tav-row");
    gtk_label_set_text(GTK_LABEL(_name), volume.name.c_str());
    gtk_label_set_text(GTK_LABEL(_status), volume.eligible ? (volume.warning ? "Can be chosen (see why)" : "")
                                                           : "Cannot be chosen");
    gtk_label_set_text(GTK_LABEL(_size), bytes(volume.size).c_str());
    gtk_label_set_text(GTK_LABEL(_free), (bytes(volume.freeSize) + " free").c_str());
    bool pending = volume.sizing == TAVSizingState::Pending;
    gtk_widget_set_visible(_spinner, pending);
    gtk_spinner_set_spinning(GTK_SPINNER(_spinner), pending);
    std::string reapable = volume.reapableSize  ? bytes(*volume.reapableSize) + " reapable"
                           : pending            ? (row ? "" : "reapable…")
                           : volume.sizing == TAVSizingState::NotRequested ? ""
                                                                           : "reapable: unknown";
    gtk_label_set_text(GTK_LABEL(_reapable), reapable.c_str());
    gtk_widget_set_visible(_info, volume.message || volume.warning);
    if (volume.eligible) gtk_widget_remove_css_class(_box, "tav-ineligible");
    else gtk_widget_add_css_class(_box, "tav-ineligible");
    gtk_widget_set_tooltip_text(_box, messageOf(volume).empty() ? nullptr : messageOf(volume).c_str());

    std::string label = accessibleLabel(volume), description = accessibleDescription(volume);
    gtk_accessible_update_property(GTK_ACCESSIBLE(_box), GTK_ACCESSIBLE_PROPERTY_LABEL, label.c_str(),
                                   GTK_ACCESSIBLE_PROPERTY_DESCRIPTION, description.c_str(), -1);
    gtk_accessible_update_state(GTK_ACCESSIBLE(_box), GTK_ACCESSIBLE_STATE_DISABLED, !volume.eligible, -1);
    gtk_accessible_update_property(GTK_ACCESSIBLE(_info), GTK_ACCESSIBLE_PROPERTY_LABEL,
                                   ("Why " + volume.name + (volume.eligible ? " needs care" : " cannot be chosen")).c_str(),
                                   -1);
}

void TAVVolumeCell::setSelected(bool selected) {
    if (selected) gtk_widget_add_css_class(_box, "tav-selected");
    else gtk_widget_remove_css_class(_box, "tav-selected");
    gtk_accessible_update_state(GTK_ACCESSIBLE(_box), GTK_ACCESSIBLE_STATE_SELECTED, selected, -1);
}
