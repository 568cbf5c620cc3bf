// What the shared library shows.
#include <gtest/gtest.h>

#include <array>
#include <cstdio>
#include <memory>
#include <set>
#include <string>

namespace mirn::test {
namespace {

// The defined dynamic symbols, demangled.
std::set<std::string> exportedSymbols() {
  const std::string command = "nm -D -C --defined-only '" MIRN_SHARED_LIBRARY "'";
  std::set<std::string> names;
  const std::unique_ptr<FILE, int (*)(FILE*)> pipe(popen(command.c_str(), "r"), pclose);
  if (pipe == nullptr) return names;
  std::array<char, 4096> line;
  while (std::fgets(line.data(), line.size(), pipe.get()) != nullptr) {
    std::string text(line.data());
    text = text.substr(0, text.find('\n'));
    // Address, kind, name.
    const size_t name = text.find(' ', text.find(' ') + 1);
    names.insert(text.substr(name + 1));
  }
  return names;
}

TEST(SharedLibrary, ShowsItsEntryPointsAndTheHostFunctionsAlone) {
  const std::set<std::string> symbols = exportedSymbols();
  ASSERT_FALSE(symbols.empty());
  std::set<std::string> entries;
  for (const std::string& symbol : symbols) {
    if (!symbol.starts_with("mirn::host")) entries.insert(symbol);
  }
  EXPECT_EQ(entries, (std::set<std::string>{"mirn::destroyTexture(long)",
                                            "mirn::registerFlutterMirnPlugin(mirn::PluginRegistrar&)",
                                            "mirn::registerFlutterMirnPluginCApi(mirn::PluginRegistrar&)"}));
  for (const char* function :
       {"mirn::hostSessionStatistics()", "mirn::hostLastOpenError()", "mirn::hostHidRefusal()",
        "mirn::hostHidTopologyPath[abi:cxx11]()", "mirn::hostCaptureTopologyPath[abi:cxx11]()",
        "mirn::hostLinkStatistics()", "mirn::hostInstallHidFunctions(mirn::HidFunctions const*)",
        "mirn::hostInstallCaptureSystem(mirn::CaptureSystem*)", "mirn::hostInstallUsbRegistry(mirn::UsbRegistry*)",
        "mirn::hostInstallClock(mirn::Clock*)", "mirn::hostReleaseProxy()", "mirn::hostLedStatus()"}) {
    EXPECT_TRUE(symbols.contains(function)) << function;
  }
}

}  // namespace
}  // namespace mirn::test
