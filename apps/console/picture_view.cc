#include "apps/console/picture_view.h"

#include <algorithm>
#include <utility>

namespace mirn {

PictureView::PictureView() {
  set_auto_render(false);
  set_has_depth_buffer(false);
  set_hexpand(true);
  set_vexpand(true);
  set_focusable(true);
  set_can_focus(true);
  constexpr int kLeastWidth = 320;
  constexpr int kLeastHeight = 180;
  set_size_request(kLeastWidth, kLeastHeight);
  signal_realize().connect(sigc::mem_fun(*this, &PictureView::onRealize));
  signal_unrealize().connect(sigc::mem_fun(*this, &PictureView::onUnrealize), false);
  signal_render().connect(sigc::mem_fun(*this, &PictureView::onRender), false);
  signal_resize().connect([this](int /*width*/, int /*height*/) { queue_render(); });
}

void PictureView::onRealize() {
  make_current();
  if (has_error()) {
    failure_ = "OpenGL is not available.";
    return;
  }
  std::string reason;
  ready_ = painter_.init(get_context()->get_use_es(), &reason);
  if (!ready_) {
    failure_ = "The picture can't be drawn: " + reason;
  }
  upload_ = static_cast<bool>(picture_);
}

void PictureView::onUnrealize() {
  make_current();
  if (ready_ && !has_error()) {
    painter_.destroy();
  }
  ready_ = false;
}

void PictureView::setPicture(const PixelBufferRef& picture, const ChangedRows& rows) {
  if (!picture_) {
    pending_ = {0, picture->height() - 1};  // of what was there before nothing is left
  } else if (upload_) {
    pending_ = {std::min(pending_.first, rows.first), std::max(pending_.last, rows.last)};
  } else {
    pending_ = rows;
  }
  upload_ = true;
  picture_ = picture;
  queue_render();
}

void PictureView::clearPicture() {
  shown_ = false;
  if (picture_) {
    picture_ = PixelBufferRef();
    upload_ = false;
    queue_render();
  }
}

void PictureView::setScaling(Scaling scaling) {
  scaling_ = scaling;
  queue_render();
}

Placement PictureView::place() const {
  int scale = get_scale_factor();
  return placePicture(get_width() * scale, get_height() * scale, pictureWidth(), pictureHeight(), scaling_);
}

bool PictureView::onRender(const Glib::RefPtr<Gdk::GLContext>& /*context*/) {
  if (!ready_) {
    return false;
  }
  if (!picture_) {
    painter_.forget();
  } else if (upload_) {
    painter_.upload(picture_, pending_);
    upload_ = false;
    ++uploaded_;
  }
  Placement placement = place();
  painter_.draw(placement, get_height() * get_scale_factor());
  ++drawn_;
  bool moved = placement.left != placement_.left || placement.top != placement_.top ||
               placement.width != placement_.width || placement.height != placement_.height;
  placement_ = placement;
  if (moved) {
    placed_.emit();
  }
  if (picture_ && !std::exchange(shown_, true)) {
    shown_signal_.emit();
  }
  return true;
}

PicturePoint PictureView::devicePosition(double x, double y) const {
  int scale = get_scale_factor();
  PicturePoint pixel = pictureUnder(place(), pictureWidth(), pictureHeight(), x * scale, y * scale);
  return {positionOfPixel(pixel.x, pictureWidth()), positionOfPixel(pixel.y, pictureHeight())};
}

}  // namespace mirn
