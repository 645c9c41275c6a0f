#include "DiskPicker/Views/TAVDiskOutlineView.h"

TAVDiskOutlineView::TAVDiskOutlineView(std::shared_ptr<TAVVolumeModel> model)
    : TAVDiskPickerView(std::move(model), GTK_ORIENTATION_VERTICAL) {
    gtk_accessible_update_property(GTK_ACCESSIBLE(content()), GTK_ACCESSIBLE_PROPERTY_LABEL, "Volumes by disk", -1);
    build();
}

GtkWidget* TAVDiskOutlineView::makeDiskGroup(const TAVDisk& disk, GtkWidget* content, GtkWidget** cellBox) {
    size_t diskIndex = _expanders.size();
    GtkWidget* group = GTK_WIDGET(
        g_object_new(GTK_TYPE_BOX, "accessible-role", GTK_ACCESSIBLE_ROLE_GROUP, "orientation", GTK_ORIENTATION_VERTICAL,
                     "spacing", 2, nullptr));
    GtkWidget* title = gtk_label_new(diskLabel(disk).c_str());
    gtk_widget_add_css_class(title, "tav-disk-title");
    GtkWidget* expander = gtk_expander_new(nullptr);
    gtk_expander_set_label_widget(GTK_EXPANDER(expander), title);
    gtk_expander_set_expanded(GTK_EXPANDER(expander), TRUE);
    *cellBox = gtk_box_new(GTK_ORIENTATION_VERTICAL, 2);
    gtk_expander_set_child(GTK_EXPANDER(expander), *cellBox);
    gtk_box_append(GTK_BOX(group), expander);
    gtk_box_append(GTK_BOX(content), group);
    gtk_accessible_update_state(GTK_ACCESSIBLE(group), GTK_ACCESSIBLE_STATE_EXPANDED, TRUE, -1);
    g_object_set_data(G_OBJECT(expander), "tav-group", group);
    g_signal_connect(expander, "notify::expanded", G_CALLBACK(+[](GtkExpander* e, GParamSpec*, gpointer) {
                         auto* g = static_cast<GtkWidget*>(g_object_get_data(G_OBJECT(e), "tav-group"));
                         gtk_accessible_update_state(GTK_ACCESSIBLE(g), GTK_ACCESSIBLE_STATE_EXPANDED,
                                                     gtk_expander_get_expanded(e), -1);
                     }),
                     nullptr);
    _expanders.push_back(expander);
    for (size_t i = 0; i < disk.volumes.size(); ++i) _diskOfVolume.push_back(diskIndex);
    return group;
}

void TAVDiskOutlineView::setDiskExpanded(size_t diskIndex, bool expanded) {
    gtk_expander_set_expanded(GTK_EXPANDER(_expanders.at(diskIndex)), expanded);
}

bool TAVDiskOutlineView::isDiskExpanded(size_t diskIndex) const {
    return gtk_expander_get_expanded(GTK_EXPANDER(_expanders.at(diskIndex)));
}

bool TAVDiskOutlineView::isVolumeShown(size_t index) const {
    return index < _diskOfVolume.size() && isDiskExpanded(_diskOfVolume[index]);
}
