// The widget that shows the target's screen.
#pragma once

#include <gtkmm/glarea.h>

#include <functional>
#include <string>

#include "apps/console/gl_painter.h"

namespace mirn {

// Bound to the main thread. Draws only when a picture, its place or the scaling changed.
class PictureView : public Gtk::GLArea {
 public:
  PictureView();

  // The newest picture and the rows that changed since the call before.
  void setPicture(const PixelBufferRef& picture, const ChangedRows& rows);
  void clearPicture();
  // A picture set after the last clearPicture() has been drawn.
  bool shown() const { return shown_; }
  void setScaling(Scaling scaling);

  // In framebuffer pixels, as drawn last.
  const Placement& placement() const { return placement_; }
  int pictureWidth() const { return picture_ ? static_cast<int>(picture_->width()) : 0; }
  int pictureHeight() const { return picture_ ? static_cast<int>(picture_->height()) : 0; }
  const PixelBufferRef& picture() const { return picture_; }
  // A point of the widget (logical pixels) as a device position, clamped to the picture.
  PicturePoint devicePosition(double x, double y) const;

  uint64_t drawn() const { return drawn_; }
  uint64_t uploaded() const { return uploaded_; }
  const std::string& failure() const { return failure_; }
  sigc::signal<void()>& signalPlaced() { return placed_; }
  // shown() became true; emitted while drawing.
  sigc::signal<void()>& signalShown() { return shown_signal_; }

 private:
  void onRealize();
  void onUnrealize();
  bool onRender(const Glib::RefPtr<Gdk::GLContext>& context);
  Placement place() const;

  GlPainter painter_;
  PixelBufferRef picture_;
  ChangedRows pending_;
  bool upload_ = false;
  bool ready_ = false;
  bool shown_ = false;
  Scaling scaling_ = Scaling::kSharp;
  Placement placement_;
  uint64_t drawn_ = 0;
  uint64_t uploaded_ = 0;
  std::string failure_;
  sigc::signal<void()> placed_;
  sigc::signal<void()> shown_signal_;
};

}  // namespace mirn
