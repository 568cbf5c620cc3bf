#include <atomic>
#include <utility>

#include "video/mirn_texture.h"

namespace mirn {
namespace {

// Cleared when the maps are about to be destroyed: a host may still call from its own exit handlers.
constinit std::atomic<bool> g_mapsAlive{true};
constinit std::atomic<void (*)()> g_releaseManager{nullptr};

struct MapsSentinel {
  ~MapsSentinel() {
    MutexGuard guard(g_MacOSTextureLock);
    g_mapsAlive.store(false, std::memory_order_release);
  }
};

/// Releases the manager at process exit, while the maps are still whole.
struct FreeMirnManager {
  ~FreeMirnManager() {
    if (void (*release)() = g_releaseManager.exchange(nullptr)) {
      release();
    }
  }
};

}  // namespace

// The order matters: at exit the manager goes first, then the registries, then the textures, then the lock.
Mutex g_MacOSTextureLock;
std::map<int64_t, std::shared_ptr<MirnTexture>> g_TextureMgr;
std::map<int64_t, std::shared_ptr<TextureRegistry>> g_TextureRegistryMgr;
static MapsSentinel g_mapsSentinel;
static FreeMirnManager g_freeMirnManager;

void setFreeMirnManager(void (*release)()) {
  g_releaseManager.store(release);
}

void insertTexture(int64_t id, std::shared_ptr<MirnTexture> texture, std::shared_ptr<TextureRegistry> registry) {
  MutexGuard guard(g_MacOSTextureLock);
  if (!g_mapsAlive.load(std::memory_order_acquire)) {
    return;
  }
  // The former entries are dropped after the lock: their destructors belong to the host.
  std::swap(g_TextureMgr[id], texture);
  std::swap(g_TextureRegistryMgr[id], registry);
}

void liveTextureIds(std::vector<int64_t>& ids) {
  ids.clear();
  MutexGuard guard(g_MacOSTextureLock);
  if (!g_mapsAlive.load(std::memory_order_acquire)) {
    return;
  }
  for (const auto& entry : g_TextureMgr) {
    ids.push_back(entry.first);
  }
}

void updateTexture(int64_t id, const PixelBufferRef& buffer) {
  MutexGuard guard(g_MacOSTextureLock);
  if (!g_mapsAlive.load(std::memory_order_acquire)) {
    return;
  }
  const auto texture = g_TextureMgr.find(id);
  const auto registry = g_TextureRegistryMgr.find(id);
  if (texture == g_TextureMgr.end() || registry == g_TextureRegistryMgr.end()) {
    return;
  }
  texture->second->updatePixelBuffer(buffer);
  registry->second->textureFrameAvailable(id);
}

void destroyTexture(int64_t id) {
  // Declared before the guard: the references go after the lock is released, so that a host's destructor may call back.
  std::shared_ptr<TextureRegistry> registry;
  std::shared_ptr<MirnTexture> texture;
  MutexGuard guard(g_MacOSTextureLock);
  if (!g_mapsAlive.load(std::memory_order_acquire)) {
    return;
  }
  const auto found = g_TextureMgr.find(id);
  if (found == g_TextureMgr.end()) {
    return;
  }
  if (const auto entry = g_TextureRegistryMgr.find(id); entry != g_TextureRegistryMgr.end()) {
    entry->second->unregisterTexture(id);
    registry = std::move(entry->second);
    g_TextureRegistryMgr.erase(entry);
  }
  texture = std::move(found->second);
  g_TextureMgr.erase(found);
}

}  // namespace mirn
