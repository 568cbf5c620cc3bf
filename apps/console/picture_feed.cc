#include "apps/console/picture_feed.h"

#include <glib.h>

#include <algorithm>
#include <atomic>
#include <optional>
#include <utility>

namespace mirn {

// Lives as long as the feed or an idle call that is still out.
struct PictureFeed::Shared {
  InputEcho echo;
  std::atomic<uint64_t> pictures{0};
  std::atomic<uint64_t> changed_pictures{0};
  PictureChange change;  // raster thread alone
  std::atomic<bool> forget{false};

  Mutex mutex;
  PixelBufferRef newest MIRN_GUARDED_BY(mutex);
  std::optional<ChangedRows> rows MIRN_GUARDED_BY(mutex);

  Taker taker;  // main thread alone; empty when the feed has gone

  void look(const std::shared_ptr<Shared>& self, const PixelBufferRef& picture) MIRN_EXCLUDES(mutex);
  void handOver() MIRN_EXCLUDES(mutex);
};

void PictureFeed::Shared::look(const std::shared_ptr<Shared>& self, const PixelBufferRef& picture) {
  pictures.fetch_add(1, std::memory_order_relaxed);
  if (forget.exchange(false, std::memory_order_relaxed)) {
    change.forget();
  }
  std::optional<ChangedRows> now = change.changed(picture);
  if (!now) {
    return;
  }
  changed_pictures.fetch_add(1, std::memory_order_relaxed);
  echo.changedPicture(picture);
  bool first = false;
  {
    MutexGuard guard(mutex);
    first = !rows.has_value();
    bool same_size = newest && newest->width() == picture->width() && newest->height() == picture->height();
    if (rows && same_size) {
      rows = ChangedRows{std::min(rows->first, now->first), std::max(rows->last, now->last)};
    } else {
      rows = now;
    }
    newest = picture;
  }
  if (first) {
    g_idle_add_full(
        G_PRIORITY_HIGH_IDLE,
        [](gpointer data) -> gboolean {
          (*static_cast<std::shared_ptr<Shared>*>(data))->handOver();
          return G_SOURCE_REMOVE;
        },
        new std::shared_ptr<Shared>(self), [](gpointer data) { delete static_cast<std::shared_ptr<Shared>*>(data); });
  }
}

void PictureFeed::Shared::handOver() {
  PixelBufferRef picture;
  std::optional<ChangedRows> changed_rows;
  {
    MutexGuard guard(mutex);
    picture = newest;
    changed_rows = std::exchange(rows, std::nullopt);
  }
  if (taker && picture && changed_rows) {
    taker(picture, *changed_rows);
  }
}

PictureFeed::PictureFeed(Session& session, Taker taker) : session_(session), shared_(std::make_shared<Shared>()) {
  shared_->taker = std::move(taker);
  session_.texture();
  session_.engine().setFrameListener(
      [shared = shared_](int64_t /*id*/, const PixelBufferRef& picture) { shared->look(shared, picture); });
}

PictureFeed::~PictureFeed() {
  session_.engine().setFrameListener({});
  shared_->taker = nullptr;
}

InputEcho& PictureFeed::echo() {
  return shared_->echo;
}

void PictureFeed::forget() {
  shared_->forget.store(true, std::memory_order_relaxed);
  MutexGuard guard(shared_->mutex);
  shared_->newest = PixelBufferRef();
}

uint64_t PictureFeed::pictures() const {
  return shared_->pictures.load(std::memory_order_relaxed);
}

uint64_t PictureFeed::changed() const {
  return shared_->changed_pictures.load(std::memory_order_relaxed);
}

}  // namespace mirn
