// The host application's program: loads the plug-in as an application does, asks it what it can always answer, and ends
// as an application does. Its exit code says whether the answers were right.
#include <flutter_linux/flutter_linux.h>

#include <cstdio>
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

bool expect(const char* what, const mirn::MessageBytes& got, const mirn::MessageBytes& wanted) {
  if (got == wanted) {
    return true;
  }
  std::fprintf(stderr, "%s: the answer is wrong\n", what);
  return false;
}

}  // namespace

int main() {
  bool good = true;
  for (int i = 0; i < 2; ++i) {
    mirn::StandinEngine engine;
    fl_register_plugins(engine.registry());
    good &= expect("normalColor", ask(engine, "normalColor"), {0, 0});
    good &= expect("getUpgradeProgress", ask(engine, "getUpgradeProgress"), {0, 12, 0});
    good &= expect("an unknown command", ask(engine, "noSuchCommand"), {0, 0});
    const mirn::MessageBytes texture = ask(engine, "createTexture");
    good &= expect("createTexture", {texture.begin(), texture.begin() + 2}, {0, 4});
    engine.shutdown();
    good &= engine.handlers() == 0;
  }
  std::puts(good ? "The plug-in was loaded, answered and let go." : "The plug-in failed.");
  return good ? 0 : 1;
}
