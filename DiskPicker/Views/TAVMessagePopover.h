// The popover that says why a volume cannot be chosen (or what to know about one that
// can). Its text is an alert, so a screen reader announces it when it shows.
#pragma once

#include <gtk/gtk.h>
#include <string>

class TAVMessagePopover {
public:
    TAVMessagePopover();
    ~TAVMessagePopover();
    TAVMessagePopover(const TAVMessagePopover&) = delete;
    TAVMessagePopover& operator=(const TAVMessagePopover&) = delete;

    // Shows `message` pointing at `widget` (which must be in a window).
    void showMessageForWidget(GtkWidget* widget, const std::string& message);
    void hide();

    bool isShown() const;
    std::string message() const;
    GtkWidget* widget() const { return _popover; }
    GtkWidget* label() const { return _label; }

private:
    GtkWidget* _popover = nullptr;  // a reference of ours while it has no parent
    GtkWidget* _label = nullptr;
};
