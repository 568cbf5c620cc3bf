// Captured pictures on their way to the raster thread of the stand-in.
#include <flutter_mirn/flutter_mirn_plugin.h>
#include <flutter_mirn/flutter_mirn_plugin_c_api.h>

#include <atomic>
#include <thread>

#include "platform/main_queue.h"
#include "plugin_fixture.h"
#include "virtual/frame_strip.h"

namespace mirn {
namespace {

// Counts the end of a texture's object. An id is the object's address here.
void countFreed(int64_t id, int* freed) {
  auto* object = reinterpret_cast<GObject*>(static_cast<intptr_t>(id));  // NOLINT(performance-no-int-to-ptr): see above
  g_object_weak_ref(
      object, [](gpointer count, GObject*) { ++*static_cast<int*>(count); }, freed);
}

class FlutterTexture : public FlutterPluginTest {
 protected:
  int64_t createTexture() { return call("createTexture").asInt(); }
  // The second plug-in takes the channel over: the registration that has made the textures ends.
  void replaceRegistration() {
    g_autoptr(FlPluginRegistrar) registrar =
        fl_plugin_registry_get_registrar_for_plugin(engine().registry(), "FlutterMirnPlugin");
    flutter_mirn_plugin_register_with_registrar(registrar);
  }
  void registerAgain() { fl_register_plugins(engine().registry()); }
  void openCamera() {
    ASSERT_TRUE(call("open").asBool());
    ASSERT_TRUE(call("setVideoQuality", {{"quality", Value("720P")}}).asBool());
  }
};

TEST_F(FlutterTexture, APictureArrivesAsRedGreenBlueAlpha) {
  const int64_t id = createTexture();
  openCamera();
  setup_.target().pointerAbsolute(4000, 5000, 0, 0);
  playFrame();
  const Painted painted = engine().paint(id);
  ASSERT_TRUE(painted.drawn) << painted.error;
  EXPECT_EQ(painted.width, 1280U);
  EXPECT_EQ(painted.height, 720U);
  const auto strip = readStripBgra(painted.rgba.data(), 1280, 720, 1280 * 4);
  ASSERT_TRUE(strip.has_value());
  EXPECT_EQ(strip->input_digest, setup_.target().inputState().digest());
  // A pixel of the title bar: blue weighs most there, red least.
  const uint8_t* title = painted.rgba.data() + (40 * 1280 + 600) * 4;
  EXPECT_LT(title[0] + 30, title[1]);
  EXPECT_LT(title[1] + 30, title[2]);
  EXPECT_EQ(title[3], 255);
}

TEST_F(FlutterTexture, AskingBeforeTheFirstPictureIsAnErrorThatSaysSo) {
  const int64_t id = createTexture();
  const Painted painted = engine().paint(id);
  EXPECT_FALSE(painted.drawn);
  EXPECT_EQ(painted.error, "no picture has arrived yet");
}

TEST_F(FlutterTexture, EachMarkIsAskedOnceAndEveryTextureShowsTheSameFrame) {
  const int64_t first = createTexture();
  const int64_t second = createTexture();
  openCamera();
  playFrame();
  EXPECT_EQ(engine().paint(first).rgba, engine().paint(second).rgba);
  EXPECT_FALSE(engine().paint(first).drawn) << "cached until the next mark";
  playFrame();
  EXPECT_TRUE(engine().paint(first).drawn);
}

TEST_F(FlutterTexture, TheSizeMayChangeBetweenFrames) {
  const int64_t id = createTexture();
  openCamera();
  playFrame();
  EXPECT_EQ(engine().paint(id).height, 720U);
  ASSERT_TRUE(call("setVideoQuality", {{"quality", Value("1080P")}}).asBool());
  playFrame();
  const Painted painted = engine().paint(id);
  EXPECT_EQ(painted.width, 1920U);
  EXPECT_TRUE(readStripBgra(painted.rgba.data(), 1920, 1080, 1920 * 4).has_value());
}

// The raster thread has found the texture and holds no reference; it is destroyed before its pixels are asked for. The
// last texture of a registration whose channel somebody else has now, too: nothing but the running engine keeps it.
class FlutterTextureAtWork : public FlutterTexture, public testing::WithParamInterface<bool> {
 protected:
  void setRegistration() {
    if (GetParam()) {
      replaceRegistration();
    }
  }
};
INSTANTIATE_TEST_SUITE_P(WithItsRegistration, FlutterTextureAtWork, testing::Values(false));
INSTANTIATE_TEST_SUITE_P(WithoutItsRegistration, FlutterTextureAtWork, testing::Values(true));

TEST_P(FlutterTextureAtWork, DestroyingBetweenLookUpAndPixelsKeepsTheTextureAlive) {
  const int64_t id = createTexture();
  openCamera();
  playFrame();
  setRegistration();
  int freed = 0;
  countFreed(id, &freed);
  std::atomic<bool> inside{false};
  std::atomic<bool> go_on{false};
  std::atomic<bool> painted{false};
  engine().setPaintHooks(
      [&] {
        inside = true;
        while (!go_on) {
          std::this_thread::yield();
        }
      },
      {});
  engine().paintLater(id, [&](const Painted&) { painted = true; });
  ASSERT_TRUE(runLoopUntil([&] { return inside.load(); }, kPatience));
  std::thread other([id] { flutter_mirn_destroy_texture(id); });
  other.join();
  EXPECT_TRUE(runLoopUntil([&] { return engine().textures() == 0; }, kPatience)) << "posted to the platform thread";
  drainLoop();
  EXPECT_EQ(freed, 0);
  go_on = true;
  EXPECT_TRUE(runLoopUntil([&] { return painted.load(); }, kPatience));
  engine().setPaintHooks({}, {});
  engine().shutdown();
  EXPECT_EQ(freed, 1);
  startEngine();
}

// Destroyed first; then nothing but what is kept for the raster thread ties it to its registration, which ends.
TEST_F(FlutterTexture, ADestroyedTextureOutlivesItsRegistrationWhileTheRasterThreadMayAskIt) {
  const int64_t id = createTexture();
  int freed = 0;
  countFreed(id, &freed);
  mainQueue().post([id] { flutter_mirn_destroy_texture(id); });
  ASSERT_TRUE(runLoopUntil([&] { return engine().textures() == 0; }, kPatience));
  replaceRegistration();
  drainLoop();
  EXPECT_EQ(freed, 0);
  engine().shutdown();
  EXPECT_EQ(freed, 1);
  startEngine();
}

// Two registrations of one engine, each with textures, and a third that has the channel when the engine ends.
TEST_F(FlutterTexture, TheEndOfAnEngineFreesTheTexturesOfReplacedRegistrationsToo) {
  int freed = 0;
  const int64_t first = createTexture();
  registerAgain();
  const int64_t second = createTexture();
  countFreed(first, &freed);
  countFreed(second, &freed);
  openCamera();
  playFrame();
  EXPECT_EQ(engine().paint(first).rgba, engine().paint(second).rgba) << "both go on";
  replaceRegistration();
  EXPECT_EQ(engine().textures(), 2U);
  EXPECT_EQ(freed, 0);
  engine().shutdown();
  EXPECT_EQ(freed, 2);
  playFrame();
  flutter_mirn_destroy_texture(first);
  std::thread other([second] { flutter_mirn_destroy_texture(second); });
  other.join();
  drainLoop();
  startEngine();
}

// The channel that tells the engine's end answers like one that nobody serves.
TEST_F(FlutterTexture, AMessageOnTheWatchingChannelIsNotImplemented) {
  createTexture();
  std::string channel;
  for (const std::string& name : engine().channels()) {
    channel = name != "flutter_mirn" ? name : channel;
  }
  ASSERT_TRUE(channel.starts_with("flutter_mirn/textures/")) << channel;
  EXPECT_EQ(send(encodeMethodCall("keyDown", Value()), channel).kind, CallOutcome::Kind::kNotImplemented);
}

// The pixels were returned and are being read when the texture is destroyed and others come.
TEST_F(FlutterTexture, DestroyingWhilePixelsAreReadKeepsTheMemory) {
  openCamera();
  const int64_t id = createTexture();
  const int64_t other = createTexture();
  playFrame();
  std::atomic<bool> inside{false};
  std::atomic<bool> go_on{false};
  std::atomic<bool> drawn{false};
  engine().setPaintHooks({}, [&] {
    inside = true;
    while (!go_on) {
      std::this_thread::yield();
    }
  });
  engine().paintLater(id, [&](const Painted& result) { drawn = result.drawn; });
  ASSERT_TRUE(runLoopUntil([&] { return inside.load(); }, kPatience));
  mainQueue().post([id] { flutter_mirn_destroy_texture(id); });
  ASSERT_TRUE(runLoopUntil([&] { return engine().textures() == 1; }, kPatience));
  EXPECT_NE(createTexture(), id) << "the address is not given again while the old object is kept";
  go_on = true;
  ASSERT_TRUE(runLoopUntil([&] { return drawn.load(); }, kPatience));
  engine().setPaintHooks({}, {});
  EXPECT_TRUE(engine().paint(other).drawn);
}

TEST_F(FlutterTexture, DestroyedTexturesAreAskedNoMoreAndUnknownIdsAreIgnored) {
  const int64_t id = createTexture();
  openCamera();
  playFrame();
  mainQueue().post([id] {
    flutter_mirn_destroy_texture(id);
    flutter_mirn_destroy_texture(id);
    flutter_mirn_destroy_texture(12345);
  });
  ASSERT_TRUE(runLoopUntil([&] { return engine().textures() == 0; }, kPatience));
  playFrame();
  EXPECT_FALSE(engine().paint(id).drawn);
  EXPECT_EQ(glibWarnings(), 0U);
}

// The raster thread may still be at work with it until it has asked another one; then it goes, with the next frame.
TEST_F(FlutterTexture, ADestroyedTextureIsFreedOnceAnotherWasAsked) {
  const int64_t id = createTexture();
  const int64_t other = createTexture();
  openCamera();
  playFrame();
  EXPECT_TRUE(engine().paint(id).drawn);
  int freed = 0;
  countFreed(id, &freed);
  mainQueue().post([id] { flutter_mirn_destroy_texture(id); });
  ASSERT_TRUE(runLoopUntil([&] { return engine().textures() == 1; }, kPatience));
  playFrame();
  EXPECT_EQ(freed, 0) << "nothing says yet that the raster thread is done with it";
  EXPECT_TRUE(engine().paint(other).drawn);
  playFrame();
  EXPECT_EQ(freed, 1);
}

TEST_F(FlutterTexture, TexturesOutliveTheirEngineHarmlessly) {
  const int64_t id = createTexture();
  openCamera();
  playFrame();
  EXPECT_TRUE(engine().paint(id).drawn);
  engine().shutdown();
  playFrame();
  startEngine();
  const int64_t next = createTexture();
  playFrame();
  EXPECT_TRUE(engine().paint(next).drawn);
  mainQueue().post([id] { flutter_mirn_destroy_texture(id); });
  drainLoop();
}

// Also one that was destroyed before and is still kept for the raster thread.
TEST_F(FlutterTexture, TheEndOfAnEngineFreesItsTextureObjects) {
  int freed = 0;
  const int64_t living = createTexture();
  const int64_t retired = createTexture();
  countFreed(living, &freed);
  countFreed(retired, &freed);
  mainQueue().post([retired] { flutter_mirn_destroy_texture(retired); });
  ASSERT_TRUE(runLoopUntil([&] { return engine().textures() == 1; }, kPatience));
  EXPECT_EQ(freed, 0);
  engine().shutdown();
  EXPECT_EQ(freed, 2);
  flutter_mirn_destroy_texture(living);
  startEngine();
}

// A registrant that an older template calls early: the engine refuses, and what it refused holds on to no picture.
TEST_F(FlutterTexture, BeforeTheEngineHasStartedThereIsNoTexture) {
  engine_ = std::make_unique<StandinEngine>(false);
  fl_register_plugins(engine_->registry());
  openCamera();
  const CallOutcome refused = call("createTexture");
  EXPECT_EQ(refused.value, Value(int64_t{0}));
  EXPECT_EQ(call("createTexture").asInt(-1), 0);
  playFrame();
  playFrame();
  flutter_mirn_destroy_texture(0);
  engine().start();
  const int64_t id = createTexture();
  EXPECT_NE(id, 0);
  EXPECT_EQ(engine().textures(), 1U);
  playFrame();
  EXPECT_TRUE(engine().paint(id).drawn);
  mainQueue().post([id] { flutter_mirn_destroy_texture(id); });
  EXPECT_TRUE(runLoopUntil([&] { return engine().textures() == 0; }, kPatience));
}

TEST_F(FlutterTexture, TexturesComeAndGoWhileFramesAreDrawn) {
#ifdef MIRN_SANITIZED
  constexpr int kRounds = 10;
#else
  constexpr int kRounds = 40;
#endif
  openCamera();
  const int64_t steady = createTexture();
  for (int i = 0; i < kRounds; ++i) {
    const int64_t id = createTexture();
    playFrame();
    std::atomic<int> painted{0};
    engine().paintLater(id, [&](const Painted&) { ++painted; });
    engine().paintLater(steady, [&](const Painted& result) {
      EXPECT_TRUE(result.drawn);
      ++painted;
    });
    std::thread other([id] { flutter_mirn_destroy_texture(id); });
    ASSERT_TRUE(runLoopUntil([&] { return painted == 2; }, kPatience));
    other.join();
    ASSERT_TRUE(runLoopUntil([&] { return engine().textures() == 1; }, kPatience));
  }
}

}  // namespace
}  // namespace mirn
