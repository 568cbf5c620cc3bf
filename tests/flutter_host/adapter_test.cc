// The adapter's edges that no command reaches.
#include <flutter_mirn/flutter_mirn_plugin.h>
#include <flutter_mirn/flutter_mirn_plugin_c_api.h>

#include "plugin_fixture.h"

namespace mirn {
namespace {

TEST(FlutterRegistration, TheRegistrarMayGoAtOnceAndEachEngineEndsItsOwn) {
  watchGlibLog();
  StandinEngine first;
  StandinEngine second;
  fl_register_plugins(first.registry());
  fl_register_plugins(second.registry());
  EXPECT_EQ(first.handlers(), 1U);
  first.shutdown();
  EXPECT_EQ(first.handlers(), 0U);
  EXPECT_EQ(second.handlers(), 1U);
  EXPECT_EQ(glibCriticals(), 0U);
}

TEST(FlutterRegistration, RegisteringTwiceReplacesTheFirst) {
  watchGlibLog();
  StandinEngine engine;
  fl_register_plugins(engine.registry());
  fl_register_plugins(engine.registry());
  EXPECT_EQ(engine.handlers(), 1U);
  engine.shutdown();
  EXPECT_EQ(glibCriticals(), 0U);
}

TEST(FlutterRegistration, AnEngineThatIsGoneKeepsNothing) {
  watchGlibLog();
  StandinEngine engine;
  g_autoptr(FlPluginRegistrar) registrar =
      fl_plugin_registry_get_registrar_for_plugin(engine.registry(), "FlutterMirnPluginCApi");
  engine.shutdown();
  flutter_mirn_plugin_c_api_register_with_registrar(registrar);
  flutter_mirn_plugin_register_with_registrar(registrar);
  EXPECT_EQ(glibCriticals(), 0U);
}

TEST(FlutterRegistration, BothClassesHaveTypesOfTheirOwn) {
  EXPECT_TRUE(g_type_is_a(flutter_mirn_plugin_c_api_get_type(), G_TYPE_OBJECT));
  EXPECT_TRUE(g_type_is_a(flutter_mirn_plugin_get_type(), G_TYPE_OBJECT));
  EXPECT_NE(flutter_mirn_plugin_c_api_get_type(), flutter_mirn_plugin_get_type());
}

}  // namespace
}  // namespace mirn
