#include "DiskPicker/Views/TAVDiskPickerView.h"

#include "DiskPicker/Model/TAVByteCountFormatter.h"

namespace {

// The views' own look: a selected volume stands out, one that cannot be chosen is
// dimmed and struck through in grey, tiles have a frame.
constexpr const char* kStyle = R"(
.tav-volume { padding: 6px 10px; border-radius: 6px; }
.tav-tile { border: 1px solid alpha(currentColor, 0.25); margin: 4px; }
.tav-volume.tav-selected { background-color: #3584e4; color: white; }
.tav-volume.tav-ineligible .tav-name { color: alpha(currentColor, 0.55); text-decoration-line: line-through; }
.tav-volume.tav-ineligible .tav-figure { color: alpha(currentColor, 0.55); }
.tav-status { font-size: smaller; color: #c01c28; }
.tav-volume.tav-selected .tav-status { color: #ffd6d6; }
.tav-name { font-weight: bold; }
.tav-disk-title { font-weight: bold; padding: 4px 2px; }
.tav-figure { font-feature-settings: "tnum"; }
)";

void installStyleOnce() {
    static bool installed = false;
    GdkDisplay* display = gdk_display_get_default();
    if (installed || !display) return;
    GtkCssProvider* provider = gtk_css_provider_new();
    gtk_css_provider_load_from_data(provider, kStyle, -1);
    gtk_style_context_add_provider_for_display(display, GTK_STYLE_PROVIDER(provider),
                                               GTK_STYLE_PROVIDER_PRIORITY_APPLICATION);
    g_object_unref(provider);
    installed = true;
}

}  // namespace

TAVDiskPickerView::TAVDiskPickerView(std::shared_ptr<TAVVolumeModel> model, GtkOrientation axis)
    : _model(std::move(model)), _axis(axis), _liveness(std::make_shared<Liveness>(Liveness{this})) {
    installStyleOnce();
    _root = gtk_scrolled_window_new();
    g_object_ref_sink(_root);
    bool vertical = axis == GTK_ORIENTATION_VERTICAL;
    gtk_scrolled_window_set_policy(GTK_SCROLLED_WINDOW(_root), vertical ? GTK_POLICY_NEVER : GTK_POLICY_AUTOMATIC,
                                   vertical ? GTK_POLICY_AUTOMATIC : GTK_POLICY_NEVER);
    _content = gtk_box_new(vertical ? GTK_ORIENTATION_VERTICAL : GTK_ORIENTATION_HORIZONTAL, vertical ? 2 : 16);
    gtk_widget_set_margin_start(_content, 8);
    gtk_widget_set_margin_end(_content, 8);
    gtk_widget_set_margin_top(_content, 8);
    gtk_widget_set_margin_bottom(_content, 8);
    gtk_scrolled_window_set_child(GTK_SCROLLED_WINDOW(_root), _content);

    // The model reports on its analysis threads; the news is carried over here.
    std::weak_ptr<Liveness> weak = _liveness;
    _observerToken = _model->addObserver([weak](const TAVVolume& volume) {
        struct News {
            std::weak_ptr<Liveness> liveness;
            TAVVolume volume;
        };
        g_idle_add_full(
            G_PRIORITY_DEFAULT,
            +[](gpointer data) -> gboolean {
                auto* news = static_cast<News*>(data);
                if (auto alive = news->liveness.lock(); alive && alive->view) alive->view->volumeDidChange(news->volume);
                return G_SOURCE_REMOVE;
            },
            new News{weak, volume}, +[](gpointer data) { delete static_cast<News*>(data); });
    });
}

TAVDiskPickerView::~TAVDiskPickerView() {
    _liveness->view = nullptr;
    _model->removeObserver(_observerToken);
    _popover.hide();
    if (gtk_widget_get_parent(_popover.widget())) gtk_widget_unparent(_popover.widget());
    g_object_unref(_root);
}

std::string TAVDiskPickerView::diskLabel(const TAVDisk& disk) {
    return disk.name + ", " + TAVByteCountFormatter::stringFromByteCount(disk.size) + " disk";
}

void TAVDiskPickerView::build() {
    for (const auto& disk : _model->disks()) {
        GtkWidget* cellBox = nullptr;
        GtkWidget* group = makeDiskGroup(disk, _content, &cellBox);
        std::string label = diskLabel(disk);
        std::string description = std::to_string(disk.volumes.size()) + (disk.volumes.size() == 1 ? " volume" : " volumes") +
                                  " on " + disk.device;
        gtk_accessible_update_property(GTK_ACCESSIBLE(group), GTK_ACCESSIBLE_PROPERTY_LABEL, label.c_str(),
                                       GTK_ACCESSIBLE_PROPERTY_DESCRIPTION, description.c_str(), -1);
        _diskGroups.push_back(group);
        for (const auto& volume : disk.volumes) {
            size_t index = _cells.size();
            _cells.push_back(std::make_unique<TAVVolumeCell>(volume, cellLayout(), volumeRole(), [this, index] {
                _popover.showMessageForWidget(volumeWidget(index), TAVVolumeCell::messageOf(_cells[index]->volume()));
            }));
            gtk_box_append(GTK_BOX(cellBox), _cells.back()->widget());
            _installPointer(index);
        }
    }
    if (_cells.empty()) {
        GtkWidget* none = gtk_label_new("No volume to install on was found.");
        gtk_widget_set_hexpand(none, TRUE);
        gtk_widget_set_vexpand(none, TRUE);
        gtk_widget_add_css_class(none, "dim-label");
        gtk_box_append(GTK_BOX(_content), none);
    }
    _installControllers();
}

void TAVDiskPickerView::_installControllers() {
    GtkEventController* keys = gtk_event_controller_key_new();
    gtk_event_controller_set_propagation_phase(keys, GTK_PHASE_CAPTURE);
    g_signal_connect(keys, "key-pressed", G_CALLBACK(_keyPressed), this);
    gtk_widget_add_controller(_root, keys);
}

void TAVDiskPickerView::_installPointer(size_t index) {
    GtkGesture* click = gtk_gesture_click_new();
    gtk_gesture_single_set_button(GTK_GESTURE_SINGLE(click), GDK_BUTTON_PRIMARY);
    g_object_set_data(G_OBJECT(click), "tav-index", GSIZE_TO_POINTER(index));
    g_signal_connect(click, "pressed",
                     G_CALLBACK(+[](GtkGestureClick* gesture, int presses, double, double, gpointer self) {
                         auto* view = static_cast<TAVDiskPickerView*>(self);
                         size_t index = GPOINTER_TO_SIZE(g_object_get_data(G_OBJECT(gesture), "tav-index"));
                         view->selectVolume(index);
                         if (presses == 2) view->chooseSelectedVolume();
                     }),
                     this);
    gtk_widget_add_controller(volumeWidget(index), GTK_EVENT_CONTROLLER(click));
}

gboolean TAVDiskPickerView::_keyPressed(GtkEventControllerKey*, guint keyval, guint, GdkModifierType, gpointer self) {
    auto* view = static_cast<TAVDiskPickerView*>(self);
    bool vertical = view->_axis == GTK_ORIENTATION_VERTICAL;
    switch (keyval) {
    case GDK_KEY_Up:
    case GDK_KEY_KP_Up:
        if (!vertical) return FALSE;
        view->moveSelection(-1);
        return TRUE;
    case GDK_KEY_Down:
    case GDK_KEY_KP_Down:
        if (!vertical) return FALSE;
        view->moveSelection(1);
        return TRUE;
    case GDK_KEY_Left:
    case GDK_KEY_KP_Left:
        if (vertical) return FALSE;
        view->moveSelection(-1);
        return TRUE;
    case GDK_KEY_Right:
    case GDK_KEY_KP_Right:
        if (vertical) return FALSE;
        view->moveSelection(1);
        return TRUE;
    case GDK_KEY_Return:
    case GDK_KEY_KP_Enter:
    case GDK_KEY_ISO_Enter:
        if (!view->_selected) return FALSE;
        view->chooseSelectedVolume();
        return TRUE;
    default:
        return FALSE;
    }
}

bool TAVDiskPickerView::isVolumeShown(size_t) const { return true; }

void TAVDiskPickerView::selectVolume(size_t index) {
    if (index >= _cells.size()) return;
    if (_selected && *_selected != index) _cells[*_selected]->setSelected(false);
    _selected = index;
    _cells[index]->setSelected(true);
    gtk_widget_grab_focus(volumeWidget(index));
    _scrollToVolume(index);
}

// Brings the volume's cell into the visible part of the scrolled window, along the axis.
void TAVDiskPickerView::_scrollToVolume(size_t index) {
    GtkWidget* viewport = gtk_scrolled_window_get_child(GTK_SCROLLED_WINDOW(_root));
    graphene_rect_t bounds;
    if (!viewport || !gtk_widget_compute_bounds(volumeWidget(index), viewport, &bounds)) return;
    bool vertical = _axis == GTK_ORIENTATION_VERTICAL;
    GtkAdjustment* adjustment = vertical ? gtk_scrolled_window_get_vadjustment(GTK_SCROLLED_WINDOW(_root))
                                         : gtk_scrolled_window_get_hadjustment(GTK_SCROLLED_WINDOW(_root));
    double start = vertical ? bounds.origin.y : bounds.origin.x;
    double end = start + (vertical ? bounds.size.height : bounds.size.width);
    double shown = gtk_adjustment_get_page_size(adjustment), value = gtk_adjustment_get_value(adjustment);
    constexpr double kMargin = 8;
    if (start < 0) gtk_adjustment_set_value(adjustment, value + start - kMargin);
    else if (end > shown) gtk_adjustment_set_value(adjustment, value + end - shown + kMargin);
}

bool TAVDiskPickerView::moveSelection(int step) {
    if (_cells.empty()) return false;
    long at = _selected ? long(*_selected) : (step > 0 ? -1 : long(_cells.size()));
    for (long next = at + step; next >= 0 && next < long(_cells.size()); next += step) {
        if (!isVolumeShown(size_t(next))) continue;
        _popover.hide();
        selectVolume(size_t(next));
        return true;
    }
    return false;
}

bool TAVDiskPickerView::chooseSelectedVolume() {
    if (!_selected) return false;
    const TAVVolume& volume = _cells[*_selected]->volume();
    if (!volume.eligible) {
        _popover.showMessageForWidget(volumeWidget(*_selected), TAVVolumeCell::messageOf(volume));
        return false;
    }
    if (_chosen) _chosen(volume);
    return true;
}

void TAVDiskPickerView::volumeDidChange(const TAVVolume& volume) {
    if (volume.index >= _cells.size()) return;
    _cells[volume.index]->update(volume);
}
