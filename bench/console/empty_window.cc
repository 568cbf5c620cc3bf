// The least window that GTK shows: what the console's start is measured against. Says "shown" after its first frame.
#include <gtkmm/application.h>
#include <gtkmm/applicationwindow.h>

#include <cstdio>

int main() {
  auto application = Gtk::Application::create("org.mirn.EmptyWindow", Gio::Application::Flags::NON_UNIQUE);
  application->signal_activate().connect([&] {
    auto* window = new Gtk::ApplicationWindow;  // lives as long as the program
    application->add_window(*window);
    window->set_default_size(1280, 800);
    window->present();
    GdkFrameClock* clock = gtk_widget_get_frame_clock(GTK_WIDGET(window->gobj()));
    g_signal_connect(clock, "after-paint", G_CALLBACK(+[](GdkFrameClock* /*clock*/, gpointer /*data*/) {
                       std::puts("shown");
                       std::fflush(stdout);
                     }),
                     nullptr);
  });
  return application->run();
}
