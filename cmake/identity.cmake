# Which USB device is a Mirn. The identifiers are build constants: a product that ships with another
# identifier is another build.

set(MIRN_VENDOR_ID 0x1209 CACHE STRING "USB vendor identifier of the Mirn")
set(MIRN_PRODUCT_ID 0x0001 CACHE STRING "USB product identifier of the Mirn")
set(MIRN_FALLBACK_VENDOR_ID 0x16c0 CACHE STRING "Second vendor identifier that is tried when the first yields no HID interface")

# The USB monitor reads identifiers as signed 16-bit numbers, so 0x8000 and above would never match.
foreach(identifier MIRN_VENDOR_ID MIRN_PRODUCT_ID MIRN_FALLBACK_VENDOR_ID)
  # No zeros in front: 010 is ten here and eight in the header.
  if(NOT ${identifier} MATCHES "^(0[xX][0-9a-fA-F]+|0|[1-9][0-9]*)$")
    message(FATAL_ERROR "${identifier}=${${identifier}} is not a number. Give it like 0x1209.")
  endif()
  math(EXPR value "${${identifier}}")
  if(value LESS 1 OR value GREATER 32767)
    message(FATAL_ERROR
      "${identifier}=${${identifier}} can't be used: the USB monitor compares identifiers as signed 16-bit numbers, "
      "so only 0x0001 to 0x7fff can ever match.")
  endif()
endforeach()

configure_file(${CMAKE_CURRENT_LIST_DIR}/mirn_identity.h.in ${PROJECT_BINARY_DIR}/generated/platform/mirn_identity.h @ONLY)
