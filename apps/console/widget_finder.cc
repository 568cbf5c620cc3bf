#include "apps/console/widget_finder.h"

#include <gtk/gtk.h>

#include <functional>

namespace mirn {
namespace {

// Calls `visit` for each mapped window of the program.
void eachWindow(const std::function<void(GtkWindow*)>& visit) {
  GListModel* windows = gtk_window_get_toplevels();
  for (guint i = 0; i < g_list_model_get_n_items(windows); ++i) {
    auto* window = GTK_WINDOW(g_list_model_get_item(windows, i));
    if (gtk_widget_get_mapped(GTK_WIDGET(window)) != 0) {
      visit(window);
    }
    g_object_unref(window);
  }
}

// Depth first, mapped widgets alone; ends at the first that `wanted` takes.
GtkWidget* findBelow(GtkWidget* widget, const std::function<bool(GtkWidget*)>& wanted) {
  if (gtk_widget_get_mapped(widget) == 0) {
    return nullptr;
  }
  if (wanted(widget)) {
    return widget;
  }
  for (GtkWidget* child = gtk_widget_get_first_child(widget); child != nullptr;
       child = gtk_widget_get_next_sibling(child)) {
    if (GtkWidget* found = findBelow(child, wanted)) {
      return found;
    }
  }
  return nullptr;
}

GtkWidget* findShown(const std::function<bool(GtkWidget*)>& wanted) {
  GtkWidget* found = nullptr;
  eachWindow([&](GtkWindow* window) {
    if (found == nullptr) {
      found = findBelow(GTK_WIDGET(window), wanted);
    }
  });
  return found;
}

// A popover has a surface of its own, which hangs on its parent's.
void addSurfaceOffset(GtkNative* native, WidgetPlace& place) {
  double left = 0;
  double top = 0;
  gtk_native_get_surface_transform(native, &left, &top);
  place.left += left;
  place.top += top;
  for (GdkSurface* surface = gtk_native_get_surface(native); GDK_IS_POPUP(surface);
       surface = gdk_popup_get_parent(GDK_POPUP(surface))) {
    place.left += gdk_popup_get_position_x(GDK_POPUP(surface));
    place.top += gdk_popup_get_position_y(GDK_POPUP(surface));
  }
}

std::optional<WidgetPlace> placeOf(GtkWidget* widget) {
  GtkNative* native = widget == nullptr ? nullptr : gtk_widget_get_native(widget);
  if (native == nullptr) {
    return std::nullopt;
  }
  WidgetPlace place;
  if (const char* title = gtk_window_get_title(GTK_WINDOW(gtk_widget_get_root(widget)))) {
    place.window = title;
  }
  gtk_widget_translate_coordinates(widget, GTK_WIDGET(native), 0, 0, &place.left, &place.top);
  addSurfaceOffset(native, place);
  place.width = gtk_widget_get_width(widget);
  place.height = gtk_widget_get_height(widget);
  place.sensitive = gtk_widget_is_sensitive(widget) != 0;
  if (GTK_IS_LABEL(widget)) {
    place.text = gtk_label_get_text(GTK_LABEL(widget));
  } else if (GTK_IS_EDITABLE(widget)) {
    place.text = gtk_editable_get_text(GTK_EDITABLE(widget));
  }
  return place;
}

GtkWidget* labelThatReads(const std::string& text) {
  return findShown(
      [&](GtkWidget* widget) { return GTK_IS_LABEL(widget) && gtk_label_get_text(GTK_LABEL(widget)) == text; });
}

}  // namespace

std::optional<WidgetPlace> findLabel(const std::string& text) {
  return placeOf(labelThatReads(text));
}

std::optional<WidgetPlace> findField(const std::string& text) {
  GtkWidget* label = labelThatReads(text);
  return placeOf(label == nullptr ? nullptr : gtk_label_get_mnemonic_widget(GTK_LABEL(label)));
}

std::vector<std::string> shownTexts() {
  std::vector<std::string> texts;
  findShown([&](GtkWidget* widget) {
    if (GTK_IS_LABEL(widget)) {
      texts.emplace_back(gtk_label_get_text(GTK_LABEL(widget)));
    }
    return false;
  });
  return texts;
}

std::vector<WindowFrames> shownWindows() {
  std::vector<WindowFrames> shown;
  eachWindow([&](GtkWindow* window) {
    const char* title = gtk_window_get_title(window);
    GdkFrameClock* clock = gtk_widget_get_frame_clock(GTK_WIDGET(window));
    shown.push_back({title == nullptr ? "" : title, clock == nullptr ? 0 : gdk_frame_clock_get_frame_counter(clock)});
  });
  // What was drawn has reached the display before anybody takes a screenshot.
  if (GdkDisplay* display = gdk_display_get_default()) {
    gdk_display_sync(display);
  }
  return shown;
}

void redrawWindows() {
  eachWindow([](GtkWindow* window) { gtk_widget_queue_draw(GTK_WIDGET(window)); });
}

}  // namespace mirn
