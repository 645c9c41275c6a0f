#include "DiskPicker/Views/TAVDiskStripView.h"

TAVDiskStripView::TAVDiskStripView(std::shared_ptr<TAVVolumeModel> model)
    : TAVDiskPickerView(std::move(model), GTK_ORIENTATION_HORIZONTAL) {
    gtk_accessible_update_property(GTK_ACCESSIBLE(content()), GTK_ACCESSIBLE_PROPERTY_LABEL, "Volumes by disk", -1);
    build();
}

GtkWidget* TAVDiskStripView::makeDiskGroup(const TAVDisk& disk, GtkWidget* content, GtkWidget** cellBox) {
    GtkWidget* group = GTK_WIDGET(
        g_object_new(GTK_TYPE_BOX, "accessible-role", GTK_ACCESSIBLE_ROLE_GROUP, "orientation", GTK_ORIENTATION_VERTICAL,
                     "spacing", 4, nullptr));
    GtkWidget* title = gtk_label_new(diskLabel(disk).c_str());
    gtk_label_set_xalign(GTK_LABEL(title), 0);
    gtk_widget_add_css_class(title, "tav-disk-title");
    *cellBox = GTK_WIDGET(g_object_new(GTK_TYPE_BOX, "accessible-role", GTK_ACCESSIBLE_ROLE_LIST, "orientation",
                                       GTK_ORIENTATION_HORIZONTAL, "spacing", 4, nullptr));
    gtk_accessible_update_property(GTK_ACCESSIBLE(*cellBox), GTK_ACCESSIBLE_PROPERTY_LABEL, disk.name.c_str(), -1);
    gtk_box_append(GTK_BOX(group), title);
    gtk_box_append(GTK_BOX(group), *cellBox);
    gtk_box_append(GTK_BOX(content), group);
    return group;
}

