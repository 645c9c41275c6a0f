// ferryhold-picker [--view outline|strip] [--target VERSION] [--required-size BYTES]
//
// A window with the disk picker's view of this machine's volumes (the mount table of
// FERRYHOLD_MOUNTINFO and the sysfs of FERRYHOLD_SYSFS when set). Choosing a volume
// (a double click, or Enter) prints its mount point on standard output and exits 0;
// closing the window or Escape exits 1; a mount table that cannot be read exits 1 with
// one line, a wrong call 2.
#include <fmt/format.h>
#include <gtk/gtk.h>
#include <memory>

#include "CommandLine/Parser.h"
#include "CommandLine/StandardOutput.h"
#include "DiskPicker/Model/TAVVolumeModel.h"
#include "DiskPicker/Views/TAVDiskOutlineView.h"
#include "DiskPicker/Views/TAVDiskStripView.h"

namespace {

constexpr int kChosen = 0;
constexpr int kNotChosen = 1;

struct Picker {
    std::string view = "outline";
    TAVInstallRequest request;
    std::shared_ptr<TAVVolumeModel> model;
    std::unique_ptr<TAVDiskPickerView> picker;
    GtkWidget* window = nullptr;
    GtkWidget* progress = nullptr;
    GMainLoop* loop = nullptr;
    int status = kNotChosen;

    void finish(int result) {
        status = result;
        g_main_loop_quit(loop);
    }
};

// "Reapable sizes: 2 of 4 worked out", or nothing once all are in.
void showProgress(Picker& p) {
    size_t asked = p.model->sizingVolumeCount(), done = p.model->sizedVolumeCount();
    bool working = asked > 0 && done < asked;
    gtk_widget_set_visible(p.progress, working);
    if (working)
        gtk_label_set_text(GTK_LABEL(p.progress), fmt::format("Working out reapable sizes: {} of {}", done, asked).c_str());
}

GtkWidget* makeWindow(Picker& p) {
    GtkWidget* window = gtk_window_new();
    gtk_window_set_title(GTK_WINDOW(window), "Choose a Volume");
    bool outline = p.view == "outline";
    gtk_window_set_default_size(GTK_WINDOW(window), outline ? 720 : 900, outline ? 420 : 260);

    GtkWidget* box = gtk_box_new(GTK_ORIENTATION_VERTICAL, 6);
    GtkWidget* heading = gtk_label_new(
        p.request.targetVersion ? ("Choose the volume to install " + *p.request.targetVersion + " on").c_str()
                                : "Choose a volume");
    gtk_label_set_xalign(GTK_LABEL(heading), 0);
    gtk_widget_add_css_class(heading, "title-4");
    for (auto* set : {gtk_widget_set_margin_start, gtk_widget_set_margin_top, gtk_widget_set_margin_end})
        set(heading, 12);
    p.progress = gtk_label_new("");
    gtk_label_set_xalign(GTK_LABEL(p.progress), 0);
    gtk_widget_set_margin_start(p.progress, 12);
    gtk_widget_add_css_class(p.progress, "dim-label");
    gtk_box_append(GTK_BOX(box), heading);
    gtk_box_append(GTK_BOX(box), p.progress);
    GtkWidget* view = p.picker->widget();
    gtk_widget_set_vexpand(view, TRUE);
    gtk_box_append(GTK_BOX(box), view);
    gtk_window_set_child(GTK_WINDOW(window), box);

    g_signal_connect(window, "close-request", G_CALLBACK(+[](GtkWindow*, gpointer data) -> gboolean {
                         static_cast<Picker*>(data)->finish(kNotChosen);
                         return FALSE;
                     }),
                     &p);
    GtkEventController* keys = gtk_event_controller_key_new();
    g_signal_connect(keys, "key-pressed",
                     G_CALLBACK(+[](GtkEventControllerKey*, guint keyval, guint, GdkModifierType, gpointer data) {
                         auto* picker = static_cast<Picker*>(data);
                         if (keyval != GDK_KEY_Escape) return gboolean(FALSE);
                         // Escape first closes a message that is showing.
                         if (picker->picker->popover().isShown()) picker->picker->popover().hide();
                         else picker->finish(kNotChosen);
                         return gboolean(TRUE);
                     }),
                     &p);
    gtk_widget_add_controller(window, keys);
    return window;
}

int pick(Picker& p) {
    TAVVolumeModelOptions options = TAVVolumeModelOptions::fromEnvironment();
    options.request = p.request;
    platform::Error error;
    p.model = TAVVolumeModel::modelWithOptions(options, &error);
    if (!p.model) {
        fmt::print(stderr, "ferryhold-picker: the mount table cannot be read: {}\n", error.description());
        return kNotChosen;
    }
    if (!gtk_init_check()) {
        fmt::print(stderr, "ferryhold-picker: no display to show the window on\n");
        return kNotChosen;
    }
    p.loop = g_main_loop_new(nullptr, FALSE);
    if (p.view == "strip") p.picker = std::make_unique<TAVDiskStripView>(p.model);
    else p.picker = std::make_unique<TAVDiskOutlineView>(p.model);
    p.picker->setChosenHandler([&p](const TAVVolume& volume) {
        commandline::outLine(volume.mountPoint);
        p.finish(kChosen);
    });
    p.window = makeWindow(p);
    // The progress line follows the analyses; the view shows each size as it arrives.
    g_timeout_add(200, +[](gpointer data) -> gboolean {
        showProgress(*static_cast<Picker*>(data));
        return G_SOURCE_CONTINUE;
    }, &p);
    showProgress(p);
    p.model->startSizing();
    gtk_window_present(GTK_WINDOW(p.window));
    g_main_loop_run(p.loop);
    p.model->cancel();
    gtk_window_destroy(GTK_WINDOW(p.window));
    p.picker.reset();
    g_main_loop_unref(p.loop);
    return p.status;
}

}  // namespace

int main(int argc, char** argv) {
    Picker p;
    auto app = commandline::makeApp("ferryhold-picker",
                                    "A window to choose the volume an installation targets; prints its mount point.");
    app->require_subcommand(0);
    app->add_option("--view", p.view, "outline (disks and their volumes, top to bottom) or strip (tiles, side by side)")
        ->type_name("VIEW")
        ->check(CLI::IsMember({"outline", "strip"}));
    app->add_option("--target", p.request.targetVersion, "The release to be installed")
        ->type_name("VERSION")
        ->check(commandline::nonEmpty);
    app->add_option("--required-size", p.request.requiredSize, "Bytes the installation needs")->type_name("BYTES");
    commandline::onRun(app.get(), [&p] { return pick(p); });
    int status = 0;
    auto action = commandline::parse(*app, argc, argv, &status);
    if (!action) return status;
    return commandline::StandardOutput::shared().finish((*action)(), "ferryhold-picker");
}
