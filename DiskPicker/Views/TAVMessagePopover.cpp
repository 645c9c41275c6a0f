#include "DiskPicker/Views/TAVMessagePopover.h"

TAVMessagePopover::TAVMessagePopover() {
    _popover = gtk_popover_new();
    g_object_ref_sink(_popover);
    gtk_widget_add_css_class(_popover, "tav-message");
    _label = GTK_WIDGET(g_object_new(GTK_TYPE_LABEL, "accessible-role", GTK_ACCESSIBLE_ROLE_ALERT, "wrap", TRUE,
                                     "max-width-chars", 40, "xalign", 0.0f, nullptr));
    gtk_widget_set_margin_start(_label, 6);
    gtk_widget_set_margin_end(_label, 6);
    gtk_widget_set_margin_top(_label, 4);
    gtk_widget_set_margin_bottom(_label, 4);
    gtk_popover_set_child(GTK_POPOVER(_popover), _label);
    gtk_popover_set_autohide(GTK_POPOVER(_popover), TRUE);
}

TAVMessagePopover::~TAVMessagePopover() {
    if (gtk_widget_get_parent(_popover)) gtk_widget_unparent(_popover);
    g_object_unref(_popover);
}

void TAVMessagePopover::showMessageForWidget(GtkWidget* widget, const std::string& message) {
    if (gtk_widget_get_parent(_popover) != widget) {
        gtk_popover_popdown(GTK_POPOVER(_popover));
        if (gtk_widget_get_parent(_popover)) gtk_widget_unparent(_popover);
        gtk_widget_set_parent(_popover, widget);
    }
    gtk_label_set_text(GTK_LABEL(_label), message.c_str());
    gtk_accessible_update_property(GTK_ACCESSIBLE(_popover), GTK_ACCESSIBLE_PROPERTY_LABEL, message.c_str(), -1);
    gtk_popover_popup(GTK_POPOVER(_popover));
}

void TAVMessagePopover::hide() { gtk_popover_popdown(GTK_POPOVER(_popover)); }

bool TAVMessagePopover::isShown() const { return gtk_widget_get_visible(_popover); }

std::string TAVMessagePopover::message() const { return gtk_label_get_text(GTK_LABEL(_label)); }
