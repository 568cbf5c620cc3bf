#include <gtest/gtest.h>

#include <memory>
#include <stdexcept>
#include <vector>

#include "tests/support/video/fake_registry.h"
#include "video/mirn_texture.h"

namespace mirn {
namespace {

class TextureMapsTest : public testing::Test {
 protected:
  ~TextureMapsTest() override {
    std::vector<int64_t> ids;
    liveTextureIds(ids);
    for (const int64_t id : ids) {
      destroyTexture(id);
    }
  }
  std::shared_ptr<test::FakeTextureRegistry> registry_ = std::make_shared<test::FakeTextureRegistry>();
  PixelBufferRef frame_ = PixelBuffer::create(4, 4, kPixelFormatBGRA);
};

TEST_F(TextureMapsTest, AFrameReachesTheTextureBeforeTheRegistryHearsOfIt) {
  const auto texture = MirnTexture::init();
  insertTexture(7, texture, registry_);
  bool thereAlready = false;
  registry_->onFrame = [&](int64_t id) {
    EXPECT_EQ(id, 7);
    thereAlready = texture->copyPixelBuffer() == frame_;
  };
  updateTexture(7, frame_);
  EXPECT_TRUE(thereAlready);
  EXPECT_EQ(registry_->events(), (std::vector<std::string>{"frame 7"}));
}

TEST_F(TextureMapsTest, AnIdInOneMapOnlyIsIgnored) {
  const auto texture = MirnTexture::init();
  {
    MutexGuard guard(g_MacOSTextureLock);
    g_TextureMgr[1] = texture;
    g_TextureRegistryMgr[2] = registry_;
  }
  updateTexture(1, frame_);
  updateTexture(2, frame_);
  updateTexture(3, frame_);
  EXPECT_FALSE(texture->copyPixelBuffer());
  EXPECT_TRUE(registry_->events().empty());
  MutexGuard guard(g_MacOSTextureLock);
  g_TextureRegistryMgr.clear();
}

// A lock left held would keep every later call waiting for ever, the frame's own thread first of all.
TEST_F(TextureMapsTest, ARegistryThatThrowsLeavesTheMapsUsable) {
  auto texture = MirnTexture::init();
  const std::weak_ptr<MirnTexture> watched = texture;
  insertTexture(6, std::move(texture), registry_);
  registry_->onFrame = [](int64_t /*id*/) { throw std::runtime_error("no engine"); };
  EXPECT_THROW(updateTexture(6, frame_), std::runtime_error);
  EXPECT_EQ(watched.lock()->copyPixelBuffer(), frame_);
  destroyTexture(6);
  EXPECT_TRUE(watched.expired());
  EXPECT_EQ(registry_->events(), (std::vector<std::string>{"frame 6", "unregister 6"}));
}

TEST_F(TextureMapsTest, DestroyingUnregistersAndForgets) {
  auto texture = MirnTexture::init();
  const std::weak_ptr<MirnTexture> watched = texture;
  insertTexture(5, std::move(texture), registry_);
  destroyTexture(5);
  EXPECT_TRUE(watched.expired());
  EXPECT_EQ(registry_->events(), (std::vector<std::string>{"unregister 5"}));
  EXPECT_EQ(registry_.use_count(), 1);
  destroyTexture(5);
  destroyTexture(-3);
  EXPECT_EQ(registry_->events().size(), 1U);
}

// The engine is told inside the maps' lock, which is why the map may be read here without taking it.
TEST_F(TextureMapsTest, BothEntriesStandUntilTheEngineWasTold) {
  insertTexture(8, MirnTexture::init(), registry_);
  size_t standing = 0;
  registry_->onUnregister = [&](int64_t id) MIRN_NO_THREAD_SAFETY_ANALYSIS {
    standing = g_TextureMgr.count(id) + g_TextureRegistryMgr.count(id);
  };
  destroyTexture(8);
  registry_->onUnregister = nullptr;
  EXPECT_EQ(standing, 2U);
  MutexGuard guard(g_MacOSTextureLock);
  EXPECT_EQ(g_TextureMgr.count(8) + g_TextureRegistryMgr.count(8), 0U);
}

TEST_F(TextureMapsTest, DestroyingATextureWithoutRegistryForgetsItAllTheSame) {
  {
    MutexGuard guard(g_MacOSTextureLock);
    g_TextureMgr[9] = MirnTexture::init();
  }
  destroyTexture(9);
  MutexGuard guard(g_MacOSTextureLock);
  EXPECT_TRUE(g_TextureMgr.empty());
}

TEST_F(TextureMapsTest, ARegistryWithoutTextureStays) {
  {
    MutexGuard guard(g_MacOSTextureLock);
    g_TextureRegistryMgr[4] = registry_;
  }
  destroyTexture(4);
  EXPECT_TRUE(registry_->events().empty());
  MutexGuard guard(g_MacOSTextureLock);
  EXPECT_EQ(g_TextureRegistryMgr.size(), 1U);
  g_TextureRegistryMgr.clear();
}

TEST_F(TextureMapsTest, IdsComeInAscendingOrder) {
  for (const int64_t id : {int64_t{30}, int64_t{-1}, int64_t{1} << 40, int64_t{2}}) {
    insertTexture(id, MirnTexture::init(), registry_);
  }
  std::vector<int64_t> ids = {99};
  liveTextureIds(ids);
  EXPECT_EQ(ids, (std::vector<int64_t>{-1, 2, 30, int64_t{1} << 40}));
}

TEST_F(TextureMapsTest, AnIdGivenAgainReplacesTheFormerEntries) {
  auto first = MirnTexture::init();
  const std::weak_ptr<MirnTexture> watched = first;
  auto other = std::make_shared<test::FakeTextureRegistry>();
  insertTexture(1, std::move(first), registry_);
  insertTexture(1, MirnTexture::init(), other);
  EXPECT_TRUE(watched.expired());
  updateTexture(1, frame_);
  EXPECT_TRUE(registry_->events().empty());
  EXPECT_EQ(other->events().size(), 1U);
}

}  // namespace
}  // namespace mirn
