// The disk picker's GTK views on the fixture machine: what a screen reader is told
// (roles, labels, descriptions, through GTK's accessibility test functions), moving and
// choosing with keys and the pointer, the popover, sizes arriving from the analysis
// threads, and screenshots of both views.
#include <gtest/gtest.h>

#include <filesystem>
#include <gtk/gtk.h>
#include <thread>

#include "DiskPicker/Model/TAVByteCountFormatter.h"
#include "DiskPicker/Views/TAVDiskOutlineView.h"
#include "DiskPicker/Views/TAVDiskStripView.h"
#include "support/DiskPickerFixture.h"
#include "support/FrameworkFixture.h"
#include "support/TempDir.h"

using namespace testsupport;

namespace {

// Runs the GTK main context until `done` holds or ten seconds pass (a loaded machine
// may take a while to lay out and draw).
bool pumpUntil(const std::function<bool()>& done) {
    gint64 until = g_get_monotonic_time() + 10 * G_USEC_PER_SEC;
    while (!done() && g_get_monotonic_time() < until)
        if (!g_main_context_iteration(nullptr, FALSE)) g_usleep(2000);
    return done();
}

void pumpBriefly() {
    gint64 until = g_get_monotonic_time() + G_USEC_PER_SEC / 5;
    while (g_get_monotonic_time() < until)
        if (!g_main_context_iteration(nullptr, FALSE)) g_usleep(2000);
}

// What the accessible says for one property; empty when it matches.
std::string propertyMismatch(GtkWidget* widget, GtkAccessibleProperty property, const std::string& expected) {
    char* mismatch = gtk_test_accessible_check_property(GTK_ACCESSIBLE(widget), property, expected.c_str());
    std::string text = mismatch ? mismatch : "";
    g_free(mismatch);
    return text;
}

bool hasRole(GtkWidget* widget, GtkAccessibleRole role) {
    return gtk_test_accessible_has_role(GTK_ACCESSIBLE(widget), role);
}

// Sends a key to the view's own key handler, as GTK would on a key press.
bool pressKey(TAVDiskPickerView& view, guint keyval) {
    GListModel* controllers = gtk_widget_observe_controllers(view.widget());
    gboolean handled = FALSE;
    for (guint i = 0; i < g_list_model_get_n_items(controllers); ++i) {
        auto* controller = static_cast<GtkEventController*>(g_list_model_get_item(controllers, i));
        if (GTK_IS_EVENT_CONTROLLER_KEY(controller))
            g_signal_emit_by_name(controller, "key-pressed", keyval, 0u, GdkModifierType(0), &handled);
        g_object_unref(controller);
    }
    g_object_unref(controllers);
    return handled;
}

class PickerViewTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() { ASSERT_TRUE(gtk_init_check()) << "no display"; }

    void SetUp() override {
        bundle.setEmptyRuleData();
    }

    std::shared_ptr<TAVVolumeModel> model(TAVInstallRequest request = {"10.7", std::nullopt}) {
        TAVVolumeModelOptions options{fixture.mountInfo(), fixture.sysfs(), std::move(request)};
        auto m = TAVVolumeModel::modelWithOptions(options);
        EXPECT_TRUE(m);
        return m;
    }

    // The view in a window of its own, shown.
    GtkWidget* show(TAVDiskPickerView& view, int width, int height) {
        GtkWidget* window = gtk_window_new();
        gtk_window_set_default_size(GTK_WINDOW(window), width, height);
        gtk_window_set_child(GTK_WINDOW(window), view.widget());
        gtk_window_present(GTK_WINDOW(window));
        // Mapped, then laid out: the first frame gives the cells their places.
        EXPECT_TRUE(pumpUntil([&] { return gtk_widget_get_mapped(view.widget()) && gtk_widget_get_width(view.widget()) > 0; }));
        pumpBriefly();
        windows.push_back(window);
        return window;
    }

    void TearDown() override {
        for (GtkWidget* window : windows) {
            gtk_window_set_child(GTK_WINDOW(window), nullptr);
            gtk_window_destroy(GTK_WINDOW(window));
        }
        pumpBriefly();
    }

    FrameworkFixture bundle;
    TempDir dir;
    DiskPickerFixture fixture{dir / "machine"};
    std::vector<GtkWidget*> windows;
};

TEST_F(PickerViewTest, DisksAndVolumesAreAccessibleElements) {
    auto sized = model();
    sized->startSizing();
    sized->waitUntilSized();
    TAVDiskOutlineView outline(sized);
    TAVDiskStripView strip(sized);
    auto disks = sized->disks();

    for (TAVDiskPickerView* view : std::initializer_list<TAVDiskPickerView*>{&outline, &strip}) {
        GtkAccessibleRole volumeRole = view == &outline ? GTK_ACCESSIBLE_ROLE_TREE_ITEM : GTK_ACCESSIBLE_ROLE_LIST_ITEM;
        ASSERT_EQ(3u, view->diskCount());
        EXPECT_TRUE(hasRole(view->diskWidget(0), GTK_ACCESSIBLE_ROLE_GROUP));
        EXPECT_EQ("", propertyMismatch(view->diskWidget(0), GTK_ACCESSIBLE_PROPERTY_LABEL, "Fixture Disk A, 1.07 GB disk"));
        EXPECT_EQ("", propertyMismatch(view->diskWidget(0), GTK_ACCESSIBLE_PROPERTY_DESCRIPTION, "2 volumes on /dev/vfa"));
        EXPECT_EQ("", propertyMismatch(view->diskWidget(2), GTK_ACCESSIBLE_PROPERTY_LABEL, "vfc, 537 MB disk"));

        // The label a screen reader speaks: the volume's name and its disk.
        const char* labels[] = {"System on Fixture Disk A", "Locked on Fixture Disk A", "Empty on vfb",
                                "Archive on vfb", "Spare on vfc"};
        for (size_t i = 0; i < 5; ++i) {
            EXPECT_TRUE(hasRole(view->volumeWidget(i), volumeRole)) << i;
            EXPECT_EQ("", propertyMismatch(view->volumeWidget(i), GTK_ACCESSIBLE_PROPERTY_LABEL, labels[i]));
        }
        // The description: size, free size, reapable size, and the reason against it.
        TAVVolume locked = *sized->volumeAtIndex(1);
        std::string description = TAVByteCountFormatter::stringFromByteCount(locked.size) + " volume, " +
                                  TAVByteCountFormatter::stringFromByteCount(locked.freeSize) + " free, " +
                                  TAVByteCountFormatter::stringFromByteCount(*locked.reapableSize) +
                                  " reapable. Cannot be chosen: The volume is mounted read-only.";
        EXPECT_EQ("", propertyMismatch(view->volumeWidget(1), GTK_ACCESSIBLE_PROPERTY_DESCRIPTION, description));
        // A volume with no system was not analysed: no reapable size in its description.
        TAVVolume empty = *sized->volumeAtIndex(2);
        EXPECT_EQ("", propertyMismatch(view->volumeWidget(2), GTK_ACCESSIBLE_PROPERTY_DESCRIPTION,
                                       TAVByteCountFormatter::stringFromByteCount(empty.size) + " volume, " +
                                           TAVByteCountFormatter::stringFromByteCount(empty.freeSize) +
                                           " free. Cannot be chosen: No installed system was found on this volume."));
        // The ones that cannot be chosen are disabled, the others are not.
        for (size_t i = 0; i < 5; ++i) {
            char* mismatch = gtk_test_accessible_check_state(GTK_ACCESSIBLE(view->volumeWidget(i)),
                                                             GTK_ACCESSIBLE_STATE_DISABLED, !disks.empty() && (i == 1 || i == 2 || i == 3));
            EXPECT_EQ(nullptr, mismatch) << i << ": " << (mismatch ? mismatch : "");
            g_free(mismatch);
        }
    }
}

TEST_F(PickerViewTest, KeysMoveAlongTheViewsAxisAndEnterChooses) {
    auto volumes = model({});
    TAVDiskOutlineView outline(volumes);
    show(outline, 700, 400);
    std::vector<std::string> chosen;
    outline.setChosenHandler([&](const TAVVolume& v) { chosen.push_back(v.mountPoint); });

    // Down from nothing selects the first volume; Left and Right are not the outline's.
    EXPECT_TRUE(pressKey(outline, GDK_KEY_Down));
    EXPECT_EQ(0u, outline.selectedIndex());
    EXPECT_TRUE(gtk_widget_has_focus(outline.volumeWidget(0)));
    EXPECT_FALSE(pressKey(outline, GDK_KEY_Right));
    EXPECT_TRUE(pressKey(outline, GDK_KEY_Return));
    EXPECT_EQ(std::vector<std::string>{fixture.mountPoint("System")}, chosen);

    // Down across the disk boundary, Up back; past the ends it stays.
    for (int i = 0; i < 3; ++i) pressKey(outline, GDK_KEY_Down);
    EXPECT_EQ(3u, outline.selectedIndex());
    for (int i = 0; i < 10; ++i) pressKey(outline, GDK_KEY_Down);
    EXPECT_EQ(4u, outline.selectedIndex());
    pressKey(outline, GDK_KEY_Up);
    EXPECT_EQ(3u, outline.selectedIndex());

    // A collapsed disk's volumes are skipped.
    outline.setDiskExpanded(1, false);
    pressKey(outline, GDK_KEY_Up);
    EXPECT_EQ(1u, outline.selectedIndex());
    pressKey(outline, GDK_KEY_Down);
    EXPECT_EQ(4u, outline.selectedIndex());
    outline.setDiskExpanded(1, true);

    // The strip moves with Left and Right, and Up and Down are not its keys.
    TAVDiskStripView strip(volumes);
    show(strip, 900, 250);
    EXPECT_FALSE(pressKey(strip, GDK_KEY_Down));
    EXPECT_FALSE(strip.selectedIndex());
    EXPECT_TRUE(pressKey(strip, GDK_KEY_Right));
    EXPECT_TRUE(pressKey(strip, GDK_KEY_Right));
    EXPECT_EQ(1u, strip.selectedIndex());
    EXPECT_TRUE(pressKey(strip, GDK_KEY_Left));
    EXPECT_EQ(0u, strip.selectedIndex());
    // Enter with nothing selected is left to others.
    TAVDiskStripView fresh(volumes);
    EXPECT_FALSE(pressKey(fresh, GDK_KEY_Return));

    // In a strip narrower than its tiles the selected one is scrolled into view.
    TAVDiskStripView narrow(volumes);
    show(narrow, 320, 250);
    auto lastTileShown = [&] {
        graphene_rect_t tile;
        return gtk_widget_compute_bounds(narrow.volumeWidget(4), narrow.widget(), &tile) && tile.origin.x >= -1 &&
               tile.origin.x + tile.size.width <= gtk_widget_get_width(narrow.widget()) + 1;
    };
    EXPECT_FALSE(lastTileShown());
    for (int i = 0; i < 5; ++i) pressKey(narrow, GDK_KEY_Right);
    EXPECT_EQ(4u, narrow.selectedIndex());
    EXPECT_TRUE(pumpUntil(lastTileShown));
    // And back to the first.
    for (int i = 0; i < 5; ++i) pressKey(narrow, GDK_KEY_Left);
    EXPECT_TRUE(pumpUntil([&] {
        return gtk_adjustment_get_value(gtk_scrolled_window_get_hadjustment(GTK_SCROLLED_WINDOW(narrow.widget()))) == 0;
    }));
}

TEST_F(PickerViewTest, AMachineWithoutVolumesSaysSo) {
    writeFile(dir / "pseudo", "22 1 0:21 / /proc rw - proc proc rw\n");
    auto none = TAVVolumeModel::modelWithOptions({dir / "pseudo", fixture.sysfs(), {}});
    ASSERT_TRUE(none);
    TAVDiskOutlineView outline(none);
    EXPECT_EQ(0u, outline.diskCount());
    EXPECT_FALSE(pressKey(outline, GDK_KEY_Down) && outline.selectedIndex());
    GtkWidget* placeholder = gtk_widget_get_first_child(
        gtk_widget_get_first_child(gtk_scrolled_window_get_child(GTK_SCROLLED_WINDOW(outline.widget()))));
    ASSERT_TRUE(GTK_IS_LABEL(placeholder));
    EXPECT_STREQ("No volume to install on was found.", gtk_label_get_text(GTK_LABEL(placeholder)));
}

TEST_F(PickerViewTest, AVolumeThatCannotBeChosenShowsWhyInstead) {
    auto volumes = model();
    volumes->startSizing();
    volumes->waitUntilSized();
    TAVDiskStripView strip(volumes);
    show(strip, 900, 250);
    int chosen = 0;
    strip.setChosenHandler([&](const TAVVolume&) { ++chosen; });

    strip.selectVolume(3);  // the newer system
    EXPECT_TRUE(pressKey(strip, GDK_KEY_KP_Enter));
    EXPECT_EQ(0, chosen);
    ASSERT_TRUE(pumpUntil([&] { return strip.popover().isShown(); }));
    EXPECT_EQ("The installed system (10.8) is not older than 10.7.", strip.popover().message());
    EXPECT_EQ(strip.volumeWidget(3), gtk_widget_get_parent(strip.popover().widget()));
    // The message is an alert, so that a screen reader announces it.
    EXPECT_TRUE(hasRole(strip.popover().label(), GTK_ACCESSIBLE_ROLE_ALERT));
    EXPECT_EQ("", propertyMismatch(strip.popover().widget(), GTK_ACCESSIBLE_PROPERTY_LABEL,
                                   "The installed system (10.8) is not older than 10.7."));

    // Moving on closes it; the next one that cannot be chosen moves it over there.
    pressKey(strip, GDK_KEY_Left);
    EXPECT_TRUE(pumpUntil([&] { return !strip.popover().isShown(); }));
    pressKey(strip, GDK_KEY_Left);
    pressKey(strip, GDK_KEY_Return);
    ASSERT_TRUE(pumpUntil([&] { return strip.popover().isShown(); }));
    EXPECT_EQ("The volume is mounted read-only.", strip.popover().message());
    EXPECT_EQ(strip.volumeWidget(1), gtk_widget_get_parent(strip.popover().widget()));
    EXPECT_EQ(0, chosen);

    // A double click chooses an eligible one; on another it shows the message.
    auto click = [&](size_t index, int presses) {
        GListModel* controllers = gtk_widget_observe_controllers(strip.volumeWidget(index));
        for (guint i = 0; i < g_list_model_get_n_items(controllers); ++i) {
            auto* controller = static_cast<GtkEventController*>(g_list_model_get_item(controllers, i));
            if (GTK_IS_GESTURE_CLICK(controller))
                g_signal_emit_by_name(controller, "pressed", presses, 10.0, 10.0);
            g_object_unref(controller);
        }
        g_object_unref(controllers);
    };
    click(4, 1);
    EXPECT_EQ(4u, strip.selectedIndex());
    EXPECT_EQ(0, chosen);
    click(4, 2);
    EXPECT_EQ(1, chosen);
    click(2, 2);
    EXPECT_EQ(1, chosen);
    ASSERT_TRUE(pumpUntil([&] { return strip.popover().isShown(); }));
    EXPECT_EQ("No installed system was found on this volume.", strip.popover().message());
}

TEST_F(PickerViewTest, ReapableSizesArriveFromTheAnalysisThreads) {
    auto volumes = model();
    TAVDiskOutlineView outline(volumes);
    show(outline, 700, 400);
    // Until its size arrives a volume shows a spinner and says so.
    EXPECT_NE("", propertyMismatch(outline.volumeWidget(0), GTK_ACCESSIBLE_PROPERTY_DESCRIPTION, ""));
    std::string before = TAVVolumeCell::accessibleDescription(*volumes->volumeAtIndex(0));
    EXPECT_NE(std::string::npos, before.find("reapable size still being worked out")) << before;
    EXPECT_EQ(TAVSizingState::Pending, outline.volumeCell(0).volume().sizing);

    // A size delivered on another thread shows once the main loop runs.
    std::thread([&] { volumes->reapableSizeDidArrive(0, 12345678, false); }).join();
    ASSERT_TRUE(pumpUntil([&] { return outline.volumeCell(0).volume().reapableSize.has_value(); }));
    EXPECT_EQ(12345678u, *outline.volumeCell(0).volume().reapableSize);
    EXPECT_NE(std::string::npos,
              TAVVolumeCell::accessibleDescription(outline.volumeCell(0).volume()).find("12.3 MB reapable"));

    // The real analyses, all of them, reach the view.
    volumes->startSizing();
    volumes->waitUntilSized();
    ASSERT_TRUE(pumpUntil([&] {
        for (size_t i = 0; i < 5; ++i)
            if (outline.volumeCell(i).volume().sizing == TAVSizingState::Pending) return false;
        return true;
    }));
    EXPECT_EQ(volumes->volumeAtIndex(4)->reapableSize, outline.volumeCell(4).volume().reapableSize);
}

// Writes the view as a PNG: its own snapshot rendered by its window's renderer.
bool writeScreenshot(GtkWidget* window, const std::string& path) {
    GdkPaintable* paintable = gtk_widget_paintable_new(window);
    int width = gtk_widget_get_width(window), height = gtk_widget_get_height(window);
    GtkSnapshot* snapshot = gtk_snapshot_new();
    gdk_paintable_snapshot(paintable, snapshot, width, height);
    GskRenderNode* node = gtk_snapshot_free_to_node(snapshot);
    bool written = false;
    if (node) {
        GskRenderer* renderer = gtk_native_get_renderer(GTK_NATIVE(window));
        graphene_rect_t bounds = GRAPHENE_RECT_INIT(0, 0, float(width), float(height));
        GdkTexture* texture = gsk_renderer_render_texture(renderer, node, &bounds);
        written = gdk_texture_save_to_png(texture, path.c_str());
        g_object_unref(texture);
        gsk_render_node_unref(node);
    }
    g_object_unref(paintable);
    return written;
}

// How many distinct colours a PNG holds (a blank picture has one or two).
size_t colours(const std::string& path) {
    GdkTexture* texture = gdk_texture_new_from_filename(path.c_str(), nullptr);
    if (!texture) return 0;
    int width = gdk_texture_get_width(texture), height = gdk_texture_get_height(texture);
    std::vector<uint32_t> pixels(size_t(width) * height);
    gdk_texture_download(texture, reinterpret_cast<guchar*>(pixels.data()), size_t(width) * 4);
    g_object_unref(texture);
    std::sort(pixels.begin(), pixels.end());
    return size_t(std::unique(pixels.begin(), pixels.end()) - pixels.begin());
}

TEST_F(PickerViewTest, ScreenshotsOfBothViews) {
    std::filesystem::create_directories(FERRYHOLD_SCREENSHOT_DIR);
    // Two volumes analysed, the others still pending, so both looks show.
    auto volumes = model({"10.7", std::nullopt});
    volumes->reapableSizeDidArrive(0, 4312000000, false);
    volumes->reapableSizeDidArrive(1, 3900000000, false);
    volumes->reapableSizeDidArrive(3, 5100000000, false);
    TAVDiskOutlineView outline(volumes);
    TAVDiskStripView strip(volumes);
    GtkWidget* outlineWindow = show(outline, 760, 380);
    GtkWidget* stripWindow = show(strip, 980, 230);
    outline.selectVolume(0);
    strip.selectVolume(4);
    pumpBriefly();
    for (auto [window, name] : {std::pair{outlineWindow, "outline"}, std::pair{stripWindow, "strip"}}) {
        std::string path = std::string(FERRYHOLD_SCREENSHOT_DIR) + "/disk-picker-" + name + ".png";
        std::filesystem::remove(path);
        ASSERT_TRUE(writeScreenshot(window, path)) << path;
        EXPECT_GT(colours(path), 20u) << path << " looks blank";
    }
    // The popover of a volume that cannot be chosen, on a surface of its own.
    strip.selectVolume(1);
    strip.chooseSelectedVolume();
    ASSERT_TRUE(pumpUntil([&] { return strip.popover().isShown() && gtk_widget_get_width(strip.popover().widget()) > 0; }));
    pumpBriefly();
    std::string path = std::string(FERRYHOLD_SCREENSHOT_DIR) + "/disk-picker-popover.png";
    ASSERT_TRUE(writeScreenshot(strip.popover().widget(), path)) << path;
    EXPECT_GT(colours(path), 10u) << path << " looks blank";
}

}  // namespace
