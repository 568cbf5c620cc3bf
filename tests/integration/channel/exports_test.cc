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
  const std::set<std::string> expected = {
      "mirn::destroyTexture(long)",
      "mirn::registerFlutterMirnPlugin(mirn::PluginRegistrar&)",
      "mirn::registerFlutterMirnPluginCApi(mirn::PluginRegistrar&)",
      "mirn::hostDeviceAttached()",
      "mirn::hostSessionStatistics()",
      "mirn::hostLastOpenError()",
      "mirn::hostHidRefusal()",
      "mirn::hostHidTopologyPath[abi:cxx11]()",
      "mirn::hostCaptureTopologyPath[abi:cxx11]()",
      "mirn::hostLinkStatistics()",
      "mirn::hostInstallHidFunctions(mirn::HidFunctions const*)",
      "mirn::hostInstallCaptureSystem(mirn::CaptureSystem*)",
      "mirn::hostInstallUsbRegistry(mirn::UsbRegistry*)",
      "mirn::hostInstallClock(mirn::Clock*)",
      "mirn::hostReleaseProxy()",
      "mirn::hostLedStatus()",
      "mirn::hostCheckHexFile(std::__cxx11::basic_string<char, std::char_traits<char>, std::allocator<char> > const&)",
  };
  EXPECT_EQ(symbols, expected);
}

}  // namespace
}  // namespace mirn::test
