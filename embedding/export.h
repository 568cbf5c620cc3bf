// What the shared library shows: everything is compiled with hidden visibility, and this marks the exceptions.
#pragma once

#define MIRN_EXPORT __attribute__((visibility("default")))
