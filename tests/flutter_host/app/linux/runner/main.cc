// The host application's program: loads the plug-in as an application does, asks it what it can always answer, takes
// its texture away as Dart does, and ends as an application does. Its exit code says whether the answers were right. An
// argument is the file that the plug-in must have come from.
#include <dlfcn.h>
#include <flutter_linux/flutter_linux.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <string>

#include "flutter/generated_plugin_registrant.h"
#include "standin/standin_engine.h"

namespace {

// {"method", null} in the standard method codec.
mirn::MessageBytes encodeCall(const std::string& method) {
  mirn::MessageBytes bytes;
  bytes.reserve(method.size() + 3);
  bytes.push_back(7);
  bytes.push_back(static_cast<uint8_t>(method.size()));
  for (const char letter : method) bytes.push_back(static_cast<uint8_t>(letter));
  bytes.push_back(0);
  return bytes;
}

// The reply's bytes; one byte 0xFF when nobody answered.
mirn::MessageBytes ask(mirn::StandinEngine& engine, const std::string& method) {
  mirn::MessageBytes answer;
  bool done = false;
  engine.send("flutter_mirn", encodeCall(method), [&](const std::optional<mirn::MessageBytes>& reply) {
    answer = reply.value_or(mirn::MessageBytes{0xFF});
    done = true;
  });
  while (!done) {
    g_main_context_iteration(nullptr, TRUE);
  }
  return answer;
}

bool expect(const char* what, bool holds) {
  if (!holds) {
    std::fprintf(stderr, "not as expected: %s\n", what);
  }
  return holds;
}
bool expect(const char* what, const mirn::MessageBytes& got, const mirn::MessageBytes& wanted) {
  return expect(what, got == wanted);
}

using DestroyTexture = void (*)(int64_t id);

// As dart:ffi finds it: the library by its bare name, the function by its own. Null when one of them isn't there, or
// the library is another file than `wanted` (null: any).
DestroyTexture findDestroyTexture(const char* wanted) {
  void* const library = dlopen("libflutter_mirn_plugin.so", RTLD_LAZY);
  void* const function = library != nullptr ? dlsym(library, "flutter_mirn_destroy_texture") : nullptr;
  Dl_info place = {};
  if (function == nullptr || dladdr(function, &place) == 0) {
    const char* const reason = dlerror();
    std::fprintf(stderr, "flutter_mirn_destroy_texture can't be found: %s\n", reason != nullptr ? reason : "");
    return nullptr;
  }
  std::error_code error;
  if (wanted != nullptr && !std::filesystem::equivalent(place.dli_fname, wanted, error)) {
    std::fprintf(stderr, "the plug-in was loaded from %s\n", place.dli_fname);
    return nullptr;
  }
  return reinterpret_cast<DestroyTexture>(function);
}

// The id in an answer to "createTexture"; 0 when it is none.
int64_t textureId(const mirn::MessageBytes& answer) {
  int64_t id = 0;
  if (answer.size() == 2 + sizeof id && answer[0] == 0 && answer[1] == 4) {
    std::memcpy(&id, answer.data() + 2, sizeof id);
  }
  return id;
}

}  // namespace

int main(int argc, char** argv) {
  const DestroyTexture destroyTexture = findDestroyTexture(argc > 1 ? argv[1] : nullptr);
  if (destroyTexture == nullptr) {
    return 1;
  }
  bool good = true;
  for (int i = 0; i < 2; ++i) {
    mirn::StandinEngine engine;
    fl_register_plugins(engine.registry());
    good &= expect("normalColor", ask(engine, "normalColor"), {0, 0});
    good &= expect("getUpgradeProgress", ask(engine, "getUpgradeProgress"), {0, 12, 0});
    good &= expect("an unknown command", ask(engine, "noSuchCommand"), {0, 0});
    const int64_t texture = textureId(ask(engine, "createTexture"));
    good &= expect("a texture", texture != 0 && engine.textures() == 1);
    destroyTexture(texture);
    // Outside of a command it is a task of the main loop.
    while (engine.textures() != 0) {
      g_main_context_iteration(nullptr, TRUE);
    }
    engine.shutdown();
    good &= expect("no handler after the engine's end", engine.handlers() == 0);
  }
  std::puts(good ? "The plug-in was loaded, answered and let go." : "The plug-in failed.");
  return good ? 0 : 1;
}
