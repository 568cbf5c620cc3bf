// hex_to_image IN.hex OUT.bin: the firmware upgrade's conversion as a process.
#include <cstdio>

#include "device/hex_image.h"

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fputs("usage: hex_to_image IN.hex OUT.bin\n", stderr);
    return 2;
  }
  return mirn::convertHexFile(argv[1], argv[2]) == mirn::HexFileResult::kConverted ? 0 : 1;
}
